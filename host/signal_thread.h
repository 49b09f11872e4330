// Takes the process's signals on a thread of its own and turns them into events for the main thread.
//
// SIGHUP asks for a reload, SIGTERM and SIGINT for the end. A further SIGTERM or SIGINT that comes two seconds or more
// after the first, however far the start or the stop has come, ends the process at once with status 128 plus the
// signal's number, after a line on stderr. An earlier one does nothing more: one stop often comes as several signals,
// from the terminal and from a supervisor.
//
// The loop that the watchdog asks to turn goes through both threads: the signal thread takes a signal of its own and
// wakes whoever waits.
//
// A SIGINT that the process was started to ignore, as shells start background jobs of scripts, stays ignored.
#ifndef QMLOGCACHE_HOST_SIGNAL_THREAD_H_
#define QMLOGCACHE_HOST_SIGNAL_THREAD_H_

#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "host/service/loop.h"

enum class HostEvent { Reload, Stop };

class CSignalThread {
 public:
  // Made before any other thread: blocks the signals in the calling thread, and so in all that come from it. SIGPIPE is
  // ignored from then on.
  CSignalThread();
  ~CSignalThread();
  CSignalThread(const CSignalThread&) = delete;
  CSignalThread& operator=(const CSignalThread&) = delete;

  // Waits for the next event. Stop comes before a reload asked for earlier.
  HostEvent Wait();

 private:
  void Run();
  void Poke();

  const sigset_t m_Signals;  // those taken
  std::mutex m_Lock;         // guards m_bReload, m_bStop, m_bTurn and m_FirstStop
  std::condition_variable m_Changed;
  bool m_bReload = false;
  bool m_bStop = false;
  bool m_bTurn = false;  // the signal thread has turned, the one that waits not yet
  std::chrono::steady_clock::time_point m_FirstStop;
  std::atomic<bool> m_bEnding{false};
  CLoop m_Loop{"qmhost-signal or main", [this] { Poke(); }};
  std::thread m_Thread;  // last: it uses all of the above
};

#endif  // QMLOGCACHE_HOST_SIGNAL_THREAD_H_
