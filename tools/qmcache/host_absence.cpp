#include "tools/qmcache/host_absence.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

bool IsSameDirectory(const std::string& strPath, const struct stat& directory) {
  struct stat info {};
  return stat(strPath.c_str(), &info) == 0 && info.st_dev == directory.st_dev && info.st_ino == directory.st_ino;
}

bool HasComponent(const fs::path& process) {
  std::ifstream maps(process / "maps");
  std::string strLine;
  while (std::getline(maps, strLine)) {
    if (strLine.find("/libqmlogcache.so") != std::string::npos) {
      return true;
    }
  }
  return false;
}

// The process that has the component loaded and the directory for its cache; empty when there is none. Processes that
// this user may not look into cannot write to the directory of this user either, but for the superuser's.
std::string FindUser(const struct stat& directory) {
  std::error_code error;
  for (fs::directory_iterator it("/proc", error), end; !error && it != end; it.increment(error)) {
    const std::string strName = it->path().filename();
    std::error_code notThere;
    if (strName.empty() || std::isdigit(static_cast<unsigned char>(strName.front())) == 0 ||
        !HasComponent(it->path())) {
      continue;
    }
    const fs::path program = fs::read_symlink(it->path() / "exe", notThere);
    if (!notThere && IsSameDirectory(FindCacheDirectory(program.parent_path()), directory)) {
      return program.filename().string() + ", process " + strName;
    }
  }
  return {};
}

std::string UserName(uid_t uUser) {
  std::vector<char> vecBuffer(16384);
  passwd entry{};
  passwd* pFound = nullptr;
  if (getpwuid_r(uUser, &entry, vecBuffer.data(), vecBuffer.size(), &pFound) == 0 && pFound != nullptr) {
    return pFound->pw_name;
  }
  return std::to_string(uUser);
}

}  // namespace

bool CHostAbsence::Ensure(const Installation& installation, std::string& strError) {
  struct stat directory {};
  if (stat(installation.strCacheDirectory.c_str(), &directory) != 0) {
    strError = "cannot write to " + installation.strCacheDirectory + ": " + std::generic_category().message(errno);
    return false;
  }
  if (directory.st_uid != geteuid()) {
    strError = installation.strCacheDirectory + " belongs to the user " + UserName(directory.st_uid) +
               ", who alone may write records back to it";
    return false;
  }
  if (std::error_code error; fs::is_directory(installation.strDataDirectory, error)) {
    m_pDataDir = std::make_unique<CDataDir>(installation.strDataDirectory);
    if (!m_pDataDir->Lock(strError)) {
      strError += "; stop it first";
      return false;
    }
  }
  const std::string strUser = FindUser(directory);
  if (!strUser.empty()) {
    strError = "the cache directory is in use by " + strUser + "; stop it first";
    return false;
  }
  return true;
}
