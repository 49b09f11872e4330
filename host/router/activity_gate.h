// Counts the calls that run inside something, and lets its owner end them: after CloseAndWait none runs and none
// begins.
//
// A thread that closes a gate from inside a call of its own does not wait for that call. Two threads that are inside
// each other's gates and both close the other's wait for each other; callers must not do that.
#ifndef QMLOGCACHE_HOST_ROUTER_ACTIVITY_GATE_H_
#define QMLOGCACHE_HOST_ROUTER_ACTIVITY_GATE_H_

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "host/router/thread_shard.h"

class CActivityGate {
 public:
  CActivityGate() = default;
  CActivityGate(const CActivityGate&) = delete;
  CActivityGate& operator=(const CActivityGate&) = delete;

  // Lets nobody in any more and returns when every scope but the calling thread's own has ended.
  void CloseAndWait();
  bool IsClosed() const { return m_bClosed.load(std::memory_order_acquire); }

 private:
  friend class CActivityScope;

  struct alignas(kCacheLine) Count {
    std::atomic<uint64_t> u64Active{0};
  };

  bool Enter();
  void Leave();
  uint64_t CountActive() const;

  // How many scopes are open, in parts: a scope is counted in its thread's one.
  std::array<Count, kThreadShards> m_arrCounts;
  std::atomic<bool> m_bClosed{false};
  std::mutex m_Lock;  // guards no member; orders the last Leave and the wait
  std::condition_variable m_Left;
};

// One call inside a gate. The gate must outlive the scope. Scopes end in the reverse order of their making, on the
// thread that made them.
class CActivityScope {
 public:
  explicit CActivityScope(CActivityGate& gate);
  ~CActivityScope();
  CActivityScope(const CActivityScope&) = delete;
  CActivityScope& operator=(const CActivityScope&) = delete;

  // False: the gate is closed, the call must not be made.
  bool IsInside() const { return m_pGate != nullptr; }

  // How many scopes of the gate the calling thread is inside.
  static uint64_t OwnDepth(const CActivityGate& gate);

 private:
  CActivityGate* m_pGate = nullptr;
  CActivityScope* m_pOuter = nullptr;
};

#endif  // QMLOGCACHE_HOST_ROUTER_ACTIVITY_GATE_H_
