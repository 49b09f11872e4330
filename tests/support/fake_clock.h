// Replaces time, sleep and usleep in a test executable.
//
// Without a CFakeClock they are the real ones. While one lives, time tells the fake time and sleeping moves it on,
// taking a moment of real time instead of the asked one.
#ifndef QMLOGCACHE_TESTS_SUPPORT_FAKE_CLOCK_H_
#define QMLOGCACHE_TESTS_SUPPORT_FAKE_CLOCK_H_

#include <ctime>
#include <functional>
#include <vector>

class CFakeClock {
 public:
  explicit CFakeClock(time_t tNow);
  ~CFakeClock();
  CFakeClock(const CFakeClock&) = delete;
  CFakeClock& operator=(const CFakeClock&) = delete;

  static void Set(time_t tNow);
  static void Advance(time_t tSeconds);
  static time_t Now();

  // Arguments of the first hundred thousand calls, in order.
  static std::vector<unsigned int> Sleeps();
  static std::vector<unsigned int> MicroSleeps();

  // Called inside each sleep (or usleep) with its argument, on the sleeping thread and without a lock, in place of the
  // moment of real time. May block. Empty: none.
  static void SetSleepHook(std::function<void(unsigned int)> hook);
  static void SetMicroSleepHook(std::function<void(unsigned int)> hook);
};

// While it lives, each look of the calling thread at the monotonic clock finds it one second further on: a wait with a
// deadline is over after a few looks. Other threads are not affected.
class CFastMonotonicClock {
 public:
  CFastMonotonicClock();
  ~CFastMonotonicClock();
  CFastMonotonicClock(const CFastMonotonicClock&) = delete;
  CFastMonotonicClock& operator=(const CFastMonotonicClock&) = delete;
};

#endif  // QMLOGCACHE_TESTS_SUPPORT_FAKE_CLOCK_H_
