// Spreads threads over the parts of something that each thread would otherwise write to at every message, so that they
// do not take its cache line from each other.
#ifndef QMLOGCACHE_HOST_ROUTER_THREAD_SHARD_H_
#define QMLOGCACHE_HOST_ROUTER_THREAD_SHARD_H_

#include <atomic>
#include <cstddef>

inline constexpr unsigned int kThreadShards = 8;
inline constexpr size_t kCacheLine = 64;

// The calling thread's part, the same for its whole life. Threads get the parts in turn; more threads share them.
inline unsigned int ThreadShard() {
  static std::atomic<unsigned int> s_uNext{0};
  thread_local const unsigned int t_uShard = s_uNext.fetch_add(1, std::memory_order_relaxed) % kThreadShards;
  return t_uShard;
}

#endif  // QMLOGCACHE_HOST_ROUTER_THREAD_SHARD_H_
