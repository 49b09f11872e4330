// Cache files as another program sees them: read and written through SQLite alone.
#ifndef QMLOGCACHE_TESTS_COMPONENT_CACHE_FILES_H_
#define QMLOGCACHE_TESTS_COMPONENT_CACHE_FILES_H_

#include <cstdint>
#include <string>
#include <vector>

struct CacheRow {
  uint64_t u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  std::string strProduct;
  std::string strCombo;
  int iDataType = 0;  // 1: strData is base64
  std::string strData;
  bool operator==(const CacheRow&) const = default;
};

// The rows in data id order; none when there is no file. Leaves the file and its side files as they are. Throws
// std::runtime_error when the file cannot be read.
std::vector<CacheRow> ReadCacheFile(const std::string& strFile);

// Makes a file with these rows elsewhere in the same file system (strFile with "-new") and moves it into place.
void WriteCacheFile(const std::string& strFile, const std::vector<CacheRow>& vecRows);

// Names of the directory's entries, sorted; none when there is no such directory.
std::vector<std::string> NamesIn(const std::string& strDirectory);
// The same, of the databases alone.
std::vector<std::string> DatabasesIn(const std::string& strDirectory);
// The same, of side files (-journal, -wal, -shm) that have no database beside them.
std::vector<std::string> OrphansIn(const std::string& strDirectory);

#endif  // QMLOGCACHE_TESTS_COMPONENT_CACHE_FILES_H_
