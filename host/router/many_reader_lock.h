// A reader-writer lock for what is read at every message and written hardly ever. A reader takes its thread's part of it,
// a writer takes them all.
#ifndef QMLOGCACHE_HOST_ROUTER_MANY_READER_LOCK_H_
#define QMLOGCACHE_HOST_ROUTER_MANY_READER_LOCK_H_

#include <array>
#include <shared_mutex>

#include "host/router/thread_shard.h"

// For std::lock_guard and std::shared_lock. A shared lock is given up by the thread that took it.
class CManyReaderLock {
 public:
  // NOLINTBEGIN(readability-identifier-naming): the names that the standard's guards call
  void lock() {
    for (Part& part : m_arrParts) {
      part.mutex.lock();
    }
  }
  void unlock() {
    for (Part& part : m_arrParts) {
      part.mutex.unlock();
    }
  }
  void lock_shared() { m_arrParts[ThreadShard()].mutex.lock_shared(); }
  void unlock_shared() { m_arrParts[ThreadShard()].mutex.unlock_shared(); }
  // NOLINTEND(readability-identifier-naming)

 private:
  struct alignas(kCacheLine) Part {
    std::shared_mutex mutex;
  };
  std::array<Part, kThreadShards> m_arrParts;
};

#endif  // QMLOGCACHE_HOST_ROUTER_MANY_READER_LOCK_H_
