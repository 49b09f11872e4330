// The component's cache directory as the host can see it from outside: where it is and what bounds it, by the
// component's configuration file, and how large its files are.
#ifndef QMLOGCACHE_HOST_STATUS_CACHE_DIRECTORY_H_
#define QMLOGCACHE_HOST_STATUS_CACHE_DIRECTORY_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Keys of etc/qmlogcache/qmlogcache.conf, read as the component reads them.
struct CacheSettings {
  std::string strDirectory;    // ends in a slash
  uint64_t u64TotalLimit = 0;  // bytes, of all files of the directory
  uint64_t u64FileLimit = 0;   // bytes, of one file
  // No record is dropped for a newer one (datacoverflag is off).
  bool bKeepsAll = true;
};

// strProgramDirectory: the directory of the running executable.
CacheSettings ReadCacheSettings(const std::string& strProgramDirectory);

struct CacheFile {
  std::string strSender;     // the file's name without ".db", for people: bytes that are not UTF-8 are replaced
  uint64_t u64Bytes = 0;     // with its write-ahead log and the log's index
  int64_t i64ChangedNs = 0;  // when the file or its log last changed, by the file system
  std::optional<uint64_t> optRows;
  std::string strFile;  // the file's name as it is, in the directory
};

struct CacheContents {
  bool bReadable = false;           // false: there is no such directory, or it cannot be read
  bool bMissing = false;            // not readable since there is no such directory
  uint64_t u64Bytes = 0;            // of everything under the directory, backups too
  size_t uFiles = 0;                // cache files, also those that vecFiles has no place for
  std::vector<CacheFile> vecFiles;  // the largest first, no two of one sender
};

// Looks at names and sizes only: opens no file. The rows are left out.
CacheContents ScanCacheDirectory(const std::string& strDirectory);

// The names of all cache files, those too that the contents have no place for; none when there is no such directory.
// Nothing when it cannot be read.
std::optional<std::vector<std::string>> ListCacheFiles(const std::string& strDirectory);

// Anybody who may send can make cache files by making up senders; so many are told of one by one.
inline constexpr size_t kMostCacheFiles = 200;

#endif  // QMLOGCACHE_HOST_STATUS_CACHE_DIRECTORY_H_
