#include "tools/qmcache/cache_directory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <system_error>

namespace {

constexpr std::string_view kExtension = ".db";
constexpr std::string_view kBackupExtension = ".db.zip";

struct DirectoryClose {
  void operator()(DIR* pDirectory) const { closedir(pDirectory); }
};

CacheFileEntry FileEntry(const std::string& strPath, const std::string& strName, const struct stat& info) {
  CacheFileEntry entry;
  entry.strPath = strPath;
  entry.strName = strName;
  entry.strSender = strName.substr(0, strName.size() - kExtension.size());
  entry.bRegular = S_ISREG(info.st_mode);
  entry.u64Bytes = entry.bRegular ? static_cast<uint64_t>(info.st_size) : 0;
  struct stat log {};
  if (lstat((strPath + "-wal").c_str(), &log) == 0 && S_ISREG(log.st_mode)) {
    entry.u64LogBytes = static_cast<uint64_t>(log.st_size);
  }
  return entry;
}

}  // namespace

CacheDirectory ListCacheDirectory(const std::string& strDirectory) {
  const std::unique_ptr<DIR, DirectoryClose> pDirectory(opendir(strDirectory.c_str()));
  if (pDirectory == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot read the cache directory " + strDirectory);
  }
  CacheDirectory found;
  while (const dirent* pEntry = readdir(pDirectory.get())) {
    const std::string strName = pEntry->d_name;
    std::string strPath = strDirectory;
    strPath.append("/").append(strName);
    struct stat info {};
    if (lstat(strPath.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) {
      continue;
    }
    if (strName.ends_with(kExtension)) {
      found.vecFiles.push_back(FileEntry(strPath, strName, info));
    } else if (strName.ends_with(kBackupExtension) && S_ISREG(info.st_mode)) {
      found.vecBackups.push_back({strPath, strName, static_cast<uint64_t>(info.st_size), info.st_mtim.tv_sec});
    }
  }
  std::sort(found.vecFiles.begin(), found.vecFiles.end(),
            [](const CacheFileEntry& left, const CacheFileEntry& right) { return left.strName < right.strName; });
  std::sort(found.vecBackups.begin(), found.vecBackups.end(),
            [](const BackupEntry& left, const BackupEntry& right) { return left.strName < right.strName; });
  return found;
}
