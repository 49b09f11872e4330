// What lies in a cache directory.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_CACHE_DIRECTORY_H_
#define QMLOGCACHE_TOOLS_QMCACHE_CACHE_DIRECTORY_H_

#include <cstdint>
#include <string>
#include <vector>

struct CacheFileEntry {
  std::string strPath;
  std::string strName;       // without the directory
  std::string strSender;     // the name without its extension
  uint64_t u64Bytes = 0;     // of the file
  uint64_t u64LogBytes = 0;  // of its write-ahead log
  bool bRegular = true;      // what is none is never opened
};

struct BackupEntry {
  std::string strPath;
  std::string strName;
  uint64_t u64Bytes = 0;
  int64_t i64Time = 0;  // of its last change, seconds since the epoch
};

struct CacheDirectory {
  std::vector<CacheFileEntry> vecFiles;  // in the order of their names
  std::vector<BackupEntry> vecBackups;   // in the order of their names
};

// Throws std::system_error when the directory cannot be read.
[[nodiscard]] CacheDirectory ListCacheDirectory(const std::string& strDirectory);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_CACHE_DIRECTORY_H_
