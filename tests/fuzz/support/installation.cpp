#include "tests/fuzz/support/installation.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/api.h"
#include "platform/file_info.h"
#include "tests/fuzz/support/fuzz_check.h"

CInstallation& CInstallation::Instance() {
  static auto& installation = *new CInstallation;
  return installation;
}

CInstallation::CInstallation() {
  std::string strPattern = (std::filesystem::temp_directory_path() / "qmlogcache-fuzz-XXXXXX").string();
  FUZZ_CHECK(mkdtemp(strPattern.data()) != nullptr);
  m_strRoot = strPattern;
  for (const char* pszName : {"bin", "etc/qmlogcache", "data"}) {
    std::filesystem::create_directories(Path(pszName));
  }
  static const pid_t pidOwner = getpid();  // the fuzzer's own helpers are forked from this process
  FUZZ_CHECK(atexit([] {
               if (getpid() == pidOwner) {
                 std::error_code ignored;
                 std::filesystem::remove_all(Instance().m_strRoot, ignored);
               }
             }) == 0);
}

void CInstallation::WriteConfig(std::string_view svLines) const {
  WriteFile(Path("etc/qmlogcache/qmlogcache.conf"), "[logcache]\n" + std::string(svLines));
}

void WriteFile(const std::string& strPath, std::string_view svBytes) {
  std::ofstream stream(strPath, std::ios::binary | std::ios::trunc);
  stream.write(svBytes.data(), static_cast<std::streamsize>(svBytes.size()));
  stream.close();
  FUZZ_CHECK(stream.good());
}

extern "C" QM_PLATFORM_API int QmGetModuleFilePath(char* pszBuffer, unsigned int uSize) {
  const std::string strPath = CInstallation::Instance().Path("bin");
  if (strPath.size() >= uSize) {
    return -1;
  }
  memcpy(pszBuffer, strPath.c_str(), strPath.size() + 1);
  return 0;
}
