// One cache file: the SQLite file of one sending plug-in, or, with an empty name, an object that only reads the
// directory.
//
// Writing repairs: a write that fails is tried again with the payload in base64; a file with evidence of damage is
// backed up, removed and written anew. A record that a sound file refuses twice is dropped with result 0, so that
// nobody retries it for ever; this is meant. A statement that found no memory is no refusal: kStatusInsertThrew is the
// result. Without evidence of damage, or where the file cannot be read to its end, nothing is removed, and the write's
// own error is the result.
//
// The file is removed by nobody but a repair, also when the object goes.
//
// Locks: m_csLock is held around every call into the database layer on the object's own file; it may be taken while the
// store's lock is held. Since the loader reads the files through an object of its own, a process-wide lock for each
// path (see file_lock.h) makes the two wait for each other. The batch belongs to the one thread that saves.
// Errors: 0 or a code of platform/status_codes.h, logged by the database layer.
#ifndef QMLOGCACHE_CACHEFILE_LOG_CACHE_FILE_H_
#define QMLOGCACHE_CACHEFILE_LOG_CACHE_FILE_H_

#include <cstdint>
#include <functional>
#include <list>
#include <map>

#include "db/log_cache_db.h"
#include "platform/cpstring.h"
#include "platform/critical_section.h"

// One record read back from a cache file.
struct _CacheExecData {
  unsigned long long u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  CPString strPluginId;  // the file's name without directory and extension
  CPString strProduct;
  CPString strCombo;
  CPString strData;
  CPString strFileName;  // full path of the file
};

// What a file looked like when it was last read.
struct _CacheFileData {
  unsigned long long u64FileSize = 0;  // bytes, its write-ahead log included
  uint32_t dwModifyTime = 0;           // seconds since the epoch, of the later of the two
};

class CLogCacheFile {
 public:
  CLogCacheFile();
  ~CLogCacheFile();
  CLogCacheFile(const CLogCacheFile&) = delete;
  CLogCacheFile& operator=(const CLogCacheFile&) = delete;

  // strLogCachePath ends in "/". Touches no disk: the file is made when it is first written. Always true. Without a
  // directory every write and delete fails with kStatusNoObject: the working directory is nobody's cache.
  bool InitFile(uint32_t dwCountLimit, const CPString& strLogCachePath, const CPString& strFileName);
  // Full path of the file.
  CPString GetLogCacheFile() const;

  // Rows that one statement of a batch holds at most.
  static constexpr size_t kBatchRows = 500;

  // --- Writing: writing.cpp ---
  // iCover non-zero: the oldest row makes room.
  [[nodiscard]] int AddCacheData(unsigned long long u64DataId, int iPriv, int iMsgType, const CPString& strProduct,
                                 const CPString& strCombo, const CPString& strData, int iCover);
  // Every hundredth call compacts the file.
  [[nodiscard]] int DeleteCacheData(unsigned long long u64DataId);
  // A bracket of BatchBegin and BatchEnd collects rows; they are written 500 at a time, or when their payloads reach
  // kBatchBytes. A non-zero result tells that none of the rows since the last write was stored.
  void BatchBegin();
  [[nodiscard]] int BatchAddData(unsigned long long u64DataId, int iPriv, int iMsgType, const CPString& strProduct,
                                 const CPString& strCombo, const CPString& strData);
  [[nodiscard]] int BatchExecute();
  [[nodiscard]] int BatchEnd();
  // Rows collected and not yet written.
  size_t BatchCount() const { return m_listBatchData.size(); }

  // --- Loading: loading.cpp ---
  // Appends the records of all files in the directory that changed since this object last read them, up to the count
  // limit in all. False only when the directory is unknown or cannot be opened.
  [[nodiscard]] bool GetCacheData(std::list<_CacheExecData>& listCacheData);
  // One file's records. False once the list is full.
  [[nodiscard]] bool ParseCacheData(const CPString& strFileName, std::list<_CacheExecData>& listCacheData);
  [[nodiscard]] bool IsCacheFileModify(const CPString& strFileName);

 private:
  friend class CLogCacheFilePeer;  // tests

  // Runs the write with data type 0, then 1, and repairs the file if both fail.
  [[nodiscard]] int WriteWithRepair(const std::function<int(int iDataType)>& write) QM_REQUIRES(m_csLock);

  CLogCacheDb m_db;
  QmCriticalSection m_csLock;
  CPString m_strLogCachePath;
  CPString m_strLogCacheFile;
  CPString m_strFileName;
  uint32_t m_dwDeleteCount QM_GUARDED_BY(m_csLock) = 0;  // since the last compaction
  uint32_t m_dwCountLimit = 100000;
  std::list<_CacheDbData> m_listBatchData;
  size_t m_uBatchBytes = 0;
  std::map<CPString, _CacheFileData> m_mapCacheFileData;  // by full path
};

#endif  // QMLOGCACHE_CACHEFILE_LOG_CACHE_FILE_H_
