// Feeds whoever would restart the host when it stands still, as long as every loop of the host turns.
//
// In each round every loop is asked to turn. When all have done so, or are away (see loop.h), the feeding is done; when
// the round is over and some have not, their names are told instead. The next round begins when a period has passed.
#ifndef QMLOGCACHE_HOST_SERVICE_WATCHDOG_H_
#define QMLOGCACHE_HOST_SERVICE_WATCHDOG_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

class CWatchdog {
 public:
  // Both functions are called on the watchdog's own thread, without a lock. strLoops names the loops
  // that stand still, comma-separated.
  CWatchdog(std::chrono::microseconds period, std::function<void()> fnFeed,
            std::function<void(const std::string& strLoops)> fnStuck);
  // Returns when neither function runs any more.
  ~CWatchdog();
  CWatchdog(const CWatchdog&) = delete;
  CWatchdog& operator=(const CWatchdog&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  // False when the watchdog is to end.
  bool Round(Clock::time_point end);
  // Waits until then. False when the watchdog is to end.
  bool WaitUntil(Clock::time_point until);

  const std::chrono::microseconds m_Period;
  const std::function<void()> m_fnFeed;
  const std::function<void(const std::string&)> m_fnStuck;
  std::mutex m_Lock;  // guards m_bStopping
  std::condition_variable m_Changed;
  bool m_bStopping = false;
  std::thread m_Thread;  // last: it uses all of the above
};

#endif  // QMLOGCACHE_HOST_SERVICE_WATCHDOG_H_
