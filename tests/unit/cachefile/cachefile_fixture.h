// Fixture of the cache file's tests, with access to the members of a CLogCacheFile.
#ifndef QMLOGCACHE_TESTS_UNIT_CACHEFILE_CACHEFILE_FIXTURE_H_
#define QMLOGCACHE_TESTS_UNIT_CACHEFILE_CACHEFILE_FIXTURE_H_

#include <memory>
#include <string>

#include "cachefile/log_cache_file.h"
#include "tests/unit/db/storage_fixture.h"

class CLogCacheFilePeer {
 public:
  explicit CLogCacheFilePeer(CLogCacheFile& file) : m_file(file) {}

  uint32_t DeleteCount() const QM_NO_THREAD_SAFETY_ANALYSIS { return m_file.m_dwDeleteCount; }
  uint32_t CountLimit() const { return m_file.m_dwCountLimit; }
  const CPString& CachePath() const { return m_file.m_strLogCachePath; }
  const CPString& FileName() const { return m_file.m_strFileName; }
  size_t SeenFiles() const { return m_file.m_mapCacheFileData.size(); }

 private:
  CLogCacheFile& m_file;
};

class CacheFileTest : public StorageTest {
 protected:
  CacheFileTest() {
    std::filesystem::create_directory(Path("cache"));
    m_file.InitFile(1000, m_strDirectory, "sender");
  }

  static int Add(CLogCacheFile& file, unsigned long long u64Id, const CPString& strData = "data", int iCover = 0) {
    return file.AddCacheData(u64Id, 1, 2, "prod", "combo", strData, iCover);
  }
  static int BatchAdd(CLogCacheFile& file, unsigned long long u64Id, const CPString& strData = "data") {
    return file.BatchAddData(u64Id, 1, 2, "prod", "combo", strData);
  }
  // A file of that name with rows 1 to uRows.
  void MakeFile(const std::string& strName, size_t uRows) {
    CLogCacheFile file;
    file.InitFile(1000, m_strDirectory, strName.c_str());
    for (size_t i = 1; i <= uRows; ++i) {
      ASSERT_EQ(0, Add(file, i));
    }
  }

  const CPString m_strDirectory = Path("cache/").c_str();
  const std::string m_strFile = Path("cache/sender.db");
  CLogCacheFile m_file;
  CLogCacheFilePeer m_peer{m_file};
};

#endif  // QMLOGCACHE_TESTS_UNIT_CACHEFILE_CACHEFILE_FIXTURE_H_
