// A thread that looks at deadlines when the earliest has passed.
//
// The deadlines themselves stay with their owner: the timer knows only the earliest and asks the owner to look through
// all of them then, which is rare, since nearly every message is answered long before its deadline.
#ifndef QMLOGCACHE_HOST_ROUTER_DEADLINE_TIMER_H_
#define QMLOGCACHE_HOST_ROUTER_DEADLINE_TIMER_H_

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "host/router/wait_table.h"
#include "host/service/loop.h"

class CDeadlineTimer {
 public:
  // fnExpire(now) ends what is due and returns the earliest deadline that is left, kNoDeadline for none. Called on the
  // timer's thread, without a lock.
  explicit CDeadlineTimer(std::function<MonotonicMs(MonotonicMs)> fnExpire);
  ~CDeadlineTimer();
  CDeadlineTimer(const CDeadlineTimer&) = delete;
  CDeadlineTimer& operator=(const CDeadlineTimer&) = delete;

  static MonotonicMs Now();

  // A deadline has been set where fnExpire finds it. Cheap when an earlier one is known.
  void Announce(MonotonicMs i64Deadline);
  // Returns when fnExpire runs no more.
  void Stop();

 private:
  void Run();

  const std::function<MonotonicMs(MonotonicMs)> m_fnExpire;
  std::atomic<MonotonicMs> m_i64Wake{kNoDeadline};  // when the thread will look; kNoDeadline while it is looking
  std::mutex m_Lock;                                // guards m_i64Announced and m_bStopping
  std::condition_variable m_Changed;
  MonotonicMs m_i64Announced = kNoDeadline;  // earliest deadline announced since the thread began to look
  bool m_bStopping = false;
  CLoop m_Loop{"qmhost-timer", [this] { m_Changed.notify_all(); }};
  std::thread m_Thread;  // last: it uses all of the above
};

#endif  // QMLOGCACHE_HOST_ROUTER_DEADLINE_TIMER_H_
