#include "cachefile/file_lock.h"

#include <map>

namespace {

struct LockTable {
  std::mutex mutex;                                        // guards the map
  std::map<CPString, std::weak_ptr<std::mutex>> mapLocks;  // only paths that somebody holds or waits for
};

// Never destroyed: a thread may outlive static destruction.
LockTable& Table() {
  static auto& table = *new LockTable;
  return table;
}

}  // namespace

CFileLock::CFileLock(const CPString& strPath) : m_strPath(strPath) {
  {
    LockTable& table = Table();
    const std::lock_guard guard(table.mutex);
    std::weak_ptr<std::mutex>& pEntry = table.mapLocks[strPath];
    m_pMutex = pEntry.lock();
    if (m_pMutex == nullptr) {
      m_pMutex = std::make_shared<std::mutex>();
      pEntry = m_pMutex;
    }
  }
  m_pMutex->lock();
}

CFileLock::~CFileLock() {
  m_pMutex->unlock();
  LockTable& table = Table();
  const std::lock_guard guard(table.mutex);
  m_pMutex.reset();
  const auto it = table.mapLocks.find(m_strPath);
  if (it != table.mapLocks.end() && it->second.expired()) {
    table.mapLocks.erase(it);
  }
}
