#include "bench/support/installation.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "platform/file_info.h"
#include "platform/log.h"

namespace {

std::string g_strModuleDirectory;  // written between lives only

}  // namespace

extern "C" [[gnu::visibility("default")]] int QmGetModuleFilePath(char* pszBuffer, unsigned int uSize) {
  if (pszBuffer == nullptr || g_strModuleDirectory.empty() || g_strModuleDirectory.size() >= uSize) {
    errno = ERANGE;
    return ERANGE;
  }
  std::memcpy(pszBuffer, g_strModuleDirectory.c_str(), g_strModuleDirectory.size() + 1);
  return 0;
}

CBenchInstallation::CBenchInstallation(const std::string& strDirectory, const std::string& strKeys)
    : m_strRoot((strDirectory.empty() ? std::filesystem::temp_directory_path() : std::filesystem::path(strDirectory)) /
                "qmlogcache-bench-XXXXXX") {
  if (mkdtemp(m_strRoot.data()) == nullptr) {
    throw std::runtime_error("mkdtemp " + m_strRoot + ": " + std::strerror(errno));
  }
  for (const char* pszName : {"/bin", "/etc/qmlogcache", "/data", "/log"}) {
    std::filesystem::create_directories(m_strRoot + pszName);
  }
  Configure(strKeys);
  constexpr unsigned int kDefaultLevels = 1U << kLogWarning | 1U << kLogMissing | 1U << kLogLifecycle;
  constexpr unsigned long long kFileSize = 10ULL << 20U;
  constexpr unsigned int kFiles = 5;
  if (QmLogConfigure((m_strRoot + "/log").c_str(), kDefaultLevels, kFileSize, kFiles) != 0) {
    throw std::runtime_error("QmLogConfigure");
  }
  g_strModuleDirectory = m_strRoot + "/bin";
}

CBenchInstallation::~CBenchInstallation() {
  g_strModuleDirectory.clear();
  std::error_code ignored;
  std::filesystem::remove_all(m_strRoot, ignored);
}

void CBenchInstallation::Configure(const std::string& strKeys) const {
  std::ofstream file(m_strRoot + "/etc/qmlogcache/qmlogcache.conf");
  file << "[logcache]\n" << strKeys;
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write the configuration in " + m_strRoot);
  }
}
