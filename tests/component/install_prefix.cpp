#include "install_prefix.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>

#include "platform/file_info.h"

namespace {

struct ModulePath {
  std::mutex mutex;  // guards everything below
  std::string strDirectory;
  int iError = ENOENT;  // 0: the directory is known
};

// Never destroyed: a thread of the component may ask until the very end.
ModulePath& TheModulePath() {
  static auto& path = *new ModulePath;
  return path;
}

void SetModulePath(const std::string& strDirectory, int iError) {
  ModulePath& path = TheModulePath();
  const std::lock_guard<std::mutex> guard(path.mutex);
  path.strDirectory = strDirectory;
  path.iError = iError;
}

std::string MakeTemporaryDirectory() {
  std::string strPath = (std::filesystem::temp_directory_path() / "qmlogcache-test-XXXXXX").string();
  if (mkdtemp(strPath.data()) == nullptr) {
    throw std::runtime_error("mkdtemp " + strPath);
  }
  return strPath;
}

std::string ConfigurationFile(const std::string& strRoot) {
  return strRoot + "/etc/qmlogcache/qmlogcache.conf";
}

}  // namespace

CInstallPrefix::CInstallPrefix() : m_strRoot(MakeTemporaryDirectory()), m_bOwn(true) {
  std::filesystem::create_directories(m_strRoot + "/bin");
  std::filesystem::create_directories(m_strRoot + "/etc/qmlogcache");
  std::filesystem::create_directories(m_strRoot + "/data");
  Configure("dataflowflag = 2\n");
  FailModulePath(0);
}

CInstallPrefix::CInstallPrefix(const std::string& strRoot) : m_strRoot(strRoot), m_bOwn(false) {
  FailModulePath(0);
}

CInstallPrefix::~CInstallPrefix() {
  SetModulePath({}, ENOENT);
  if (m_bOwn) {
    std::error_code ignored;
    std::filesystem::remove_all(m_strRoot, ignored);
  }
}

void CInstallPrefix::Configure(const std::string& strKeys) {
  std::ofstream file(ConfigurationFile(m_strRoot), std::ios::binary | std::ios::trunc);
  file << "[logcache]\n" << strKeys;
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + ConfigurationFile(m_strRoot));
  }
}

void CInstallPrefix::RemoveConfiguration() {
  std::filesystem::remove(ConfigurationFile(m_strRoot));
}

void CInstallPrefix::FailModulePath(int iError) {
  SetModulePath(ModuleDirectory(), iError);
}

extern "C" {
__attribute__((visibility("default"))) int QmGetModuleFilePath(char* pszBuffer, unsigned int uSize) {
  ModulePath& path = TheModulePath();
  const std::lock_guard<std::mutex> guard(path.mutex);
  int iError = path.iError;
  if (pszBuffer == nullptr) {
    iError = EINVAL;
  } else if (iError == 0 && path.strDirectory.size() >= uSize) {
    iError = ERANGE;
  }
  if (iError != 0) {
    errno = iError;
    return iError;
  }
  std::memcpy(pszBuffer, path.strDirectory.c_str(), path.strDirectory.size() + 1);
  return 0;
}
}
