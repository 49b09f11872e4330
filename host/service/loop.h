// The host's loops, as its watchdog sees them: queues that threads of the host serve.
//
// A loop has turned when one of its threads has come round since it was asked to. A thread that is in somebody else's
// code (a component's callback, a library's call with a time-out of its own) is away: how long that takes is not the
// loop's fault. A loop whose threads are all away, or that has none, is not expected to turn.
//
// Everything here may be called from any thread, takes no memory and throws nothing.
#ifndef QMLOGCACHE_HOST_SERVICE_LOOP_H_
#define QMLOGCACHE_HOST_SERVICE_LOOP_H_

#include <atomic>
#include <functional>
#include <string>

class CLoop {
 public:
  // strName: for the log, the name of the threads. fnWake makes a thread that waits look at IsTurnDue. It is called
  // while a CLoopThread of the loop lives, again and again until the loop has turned, so that a wake-up that comes too
  // early is made good; it must take no lock that a thread of the loop may hold, or the watchdog would stand still with
  // it.
  CLoop(std::string strName, std::function<void()> fnWake);
  CLoop(const CLoop&) = delete;
  CLoop& operator=(const CLoop&) = delete;

  // The threads' side: a turn is asked for; the loop has come round.
  bool IsTurnDue() const { return m_bDue.load(std::memory_order_relaxed); }
  void Turn() {
    if (IsTurnDue()) {
      m_bDue.store(false, std::memory_order_relaxed);
    }
  }

  // The watchdog's side, for all loops that have a thread at this moment.
  static void AskAll();
  // Wakes those that have not turned since they were asked and are not away; their names, comma-separated. Empty when
  // there are none.
  static std::string WakeLate();

 private:
  friend class CLoopThread;
  friend class CCodeScope;

  bool IsAway() const { return m_uAway.load() >= m_uThreads; }

  const std::string m_strName;
  const std::function<void()> m_fnWake;
  std::atomic<bool> m_bDue{false};
  std::atomic<unsigned int> m_uAway{0};
  // Guarded by the lock of all loops.
  unsigned int m_uThreads = 0;
  CLoop* m_pNext = nullptr;
};

// For the life of a thread that serves a loop, on that thread. One a thread. When the last one of a loop has ended its
// fnWake is not running and is not called any more.
class CLoopThread {
 public:
  explicit CLoopThread(CLoop& loop);
  ~CLoopThread();
  CLoopThread(const CLoopThread&) = delete;
  CLoopThread& operator=(const CLoopThread&) = delete;

 private:
  CLoop& m_Loop;
};

// Says whose code the calling thread is in until the end of the scope. Scopes nest; the innermost holds. Does nothing on
// a thread that serves no loop.
class CCodeScope {
 public:
  CCodeScope(const CCodeScope&) = delete;
  CCodeScope& operator=(const CCodeScope&) = delete;

 protected:
  explicit CCodeScope(bool bForeign);
  ~CCodeScope();

 private:
  const bool m_bBefore;
};

class CForeignCode : CCodeScope {
 public:
  CForeignCode() : CCodeScope(true) {}
};
class COwnCode : CCodeScope {
 public:
  COwnCode() : CCodeScope(false) {}
};

#endif  // QMLOGCACHE_HOST_SERVICE_LOOP_H_
