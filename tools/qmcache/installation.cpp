#include "tools/qmcache/installation.h"

#include <strings.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/file_info.h"
#include "platform/ini_reader.h"

namespace {

struct Wanted {
  const char* pszSection;
  const char* pszKey;
  std::string strValue;
};

// The last value of a key; nothing is thrown through the reader.
int TakeKey(void* pUser, const char* pszSection, const char* pszName, const char* pszValue, int /*iLine*/) {
  auto& wanted = *static_cast<Wanted*>(pUser);
  if (pszSection != nullptr && pszName != nullptr && pszValue != nullptr &&
      strcasecmp(pszSection, wanted.pszSection) == 0 && strcasecmp(pszName, wanted.pszKey) == 0) {
    try {
      wanted.strValue = pszValue;
    } catch (const std::bad_alloc&) {
      return 0;
    }
  }
  return 1;
}

std::string ReadKey(const std::string& strFile, const char* pszSection, const char* pszKey, const char* pszDefault) {
  Wanted wanted{pszSection, pszKey, pszDefault};
  static_cast<void>(wrap_ini_parse(strFile.c_str(), TakeKey, &wanted));
  return wanted.strValue;
}

std::string WithoutTrailingSlash(const std::filesystem::path& path) {
  std::string strPath = path.lexically_normal().string();
  while (strPath.size() > 1 && strPath.ends_with('/')) {
    strPath.pop_back();
  }
  return strPath;
}

}  // namespace

std::string FindCacheDirectory(const std::string& strProgramDirectory) {
  const std::string strConfig = strProgramDirectory + "/../etc/qmlogcache/qmlogcache.conf";
  // Joined also when the configured path begins with "/", as the component does.
  return WithoutTrailingSlash(strProgramDirectory + "/" +
                              ReadKey(strConfig, "logcache", "logcachepath", "../data/qmlogcache/"));
}

Installation FindInstallation(const std::string& strProgramDirectory, const std::string& strHostConfig) {
  const std::filesystem::path prefix = std::filesystem::path(strProgramDirectory).parent_path();
  const std::string strConfig = strHostConfig.empty() ? (prefix / "etc/qmhost.conf").string() : strHostConfig;
  return {FindCacheDirectory(strProgramDirectory),
          WithoutTrailingSlash(prefix / ReadKey(strConfig, "host", "data_dir", "data")),
          WithoutTrailingSlash(prefix / ReadKey(strConfig, "log", "dir", "log"))};
}

std::string OwnDirectory() {
  std::array<char, 4096> szPath{};
  if (QmGetModuleFilePath(szPath.data(), static_cast<unsigned int>(szPath.size() - 1)) != 0) {
    throw std::system_error(errno, std::generic_category(), "this program's own directory cannot be told");
  }
  return szPath.data();
}
