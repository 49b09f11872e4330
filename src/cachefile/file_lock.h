// A process-wide lock for each path: objects that work on one file wait for each other here instead of meeting in
// SQLite, where a busy file would look like a damaged one, and where closing one descriptor of a file drops the locks
// of all.
//
// The last lock in the order: nothing else is locked while it is held.
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
