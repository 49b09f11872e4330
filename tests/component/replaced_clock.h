// The clock and the waits of a host that replaces them: the executable defines time, sleep, usleep and
// QmWaitEventTimeout, so that hours pass in milliseconds.
//
// The clock shows real time plus what Advance added, or stands still after Freeze. Waits last their real length divided
// by a divisor, and are counted as they begin. Every operation may be called from any thread.
#ifndef QMLOGCACHE_TESTS_COMPONENT_REPLACED_CLOCK_H_
#define QMLOGCACHE_TESTS_COMPONENT_REPLACED_CLOCK_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <string>

class CReplacedClock {
 public:
  using WaitEventFunc = int (*)(void* hEvent, unsigned int dwMilliseconds);

  static CReplacedClock& Get();

  // The settings that suit most tests: the real clock, sleep a thousand times, usleep four times and event waits
  // fifty times faster. Forgets all counts.
  void Reset();
  // Where a wait on an event really goes: the platform library's own function.
  void SetRealWaitEvent(WaitEventFunc pfnWaitEvent);

  // --- Clock ---
  void Freeze(time_t tNow);
  void Advance(time_t tSeconds);
  time_t Now() const;

  // --- Waits ---
  void SetSleepDivisor(uint64_t u64Divisor);
  void SetMicroSleepDivisor(uint64_t u64Divisor);
  void SetEventDivisor(uint64_t u64Divisor);
  // Calls of sleep(1) by threads of that name.
  uint64_t SleepsOf(const std::string& strThread);
  // Event waits of that length.
  uint64_t EventWaits(unsigned int dwMilliseconds);
  // Waits until uMore further event waits of that length have begun; false when they do not come.
  [[nodiscard]] bool WaitForEventWaits(unsigned int dwMilliseconds, uint64_t uMore);
  // Keeps every event wait from returning until ReleaseEventWaits, and returns once one is kept; false when none comes.
  // What the caller does meanwhile is over before the waiting thread looks at it.
  [[nodiscard]] bool HoldEventWaits();
  void ReleaseEventWaits();

  // The functions' side.
  void Sleep(unsigned int uSeconds);
  void MicroSleep(unsigned int uMicroseconds) const;
  int WaitEvent(void* hEvent, unsigned int dwMilliseconds);

 private:
  void StayWhileHeld();

  std::atomic<bool> m_bFrozen{false};
  std::atomic<time_t> m_tShown{0};  // frozen: the time; else what is added to the real time
  std::atomic<uint64_t> m_uSleepDivisor{1};
  std::atomic<uint64_t> m_uMicroSleepDivisor{1};
  std::atomic<uint64_t> m_uEventDivisor{1};
  std::atomic<WaitEventFunc> m_pfnRealWaitEvent{nullptr};

  std::mutex m_mutex;  // guards everything below
  std::condition_variable m_counted;
  std::map<std::string, uint64_t> m_mapSleeps;
  std::map<unsigned int, uint64_t> m_mapEventWaits;
  bool m_bHoldEventWaits = false;
  int m_iHeldEventWaits = 0;
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_REPLACED_CLOCK_H_
