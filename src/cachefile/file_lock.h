// A process-wide lock for each path: objects that work on one file wait for each other here instead of meeting in
// SQLite, where a busy file would look like a damaged one, and where closing one descriptor of a file drops the locks
// of all.
//
// The last lock of the component's order: while it is held, only locks are taken that take no other themselves, those of
// the log, of the durable logs' table (db/wal_vfs.h) and of SQLite.
#ifndef QMLOGCACHE_CACHEFILE_FILE_LOCK_H_
#define QMLOGCACHE_CACHEFILE_FILE_LOCK_H_

#include <memory>
#include <mutex>

#include "platform/cpstring.h"

// Holds the path's lock for its own lifetime. Throws std::bad_alloc when there is no memory for it.
class CFileLock {
 public:
  explicit CFileLock(const CPString& strPath);
  ~CFileLock();
  CFileLock(const CFileLock&) = delete;
  CFileLock& operator=(const CFileLock&) = delete;

 private:
  CPString m_strPath;
  std::shared_ptr<std::mutex> m_pMutex;
};

#endif  // QMLOGCACHE_CACHEFILE_FILE_LOCK_H_
