#include "tests/support/fake_clock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <utility>

#include "platform/api.h"

namespace {

constexpr size_t kKeptCalls = 100000;
constexpr long kNanosPerSecond = 1000000000;
constexpr long long kMicrosPerSecond = 1000000;
// Real time that a fake sleep takes. A fake usleep takes longer: it is the pause between the looks of one who waits for
// other threads, and these must get their turn also on a busy machine.
constexpr long kSleepNanos = 500000;
constexpr long kMicroSleepNanos = 50000000;

struct State {
  std::mutex mutex;  // guards everything below
  bool bFake = false;
  long long llMicros = 0;
  std::vector<unsigned int> vecSleeps;
  std::vector<unsigned int> vecMicroSleeps;
  std::function<void(unsigned int)> sleepHook;
  std::function<void(unsigned int)> microSleepHook;
};

State& TheState() {
  static State& state = *new State;  // outlives every thread
  return state;
}

thread_local bool t_bFastMonotonic = false;
thread_local time_t t_tMonotonicOffset = 0;

int RealClock(clockid_t clock, timespec* pResult) {
  return static_cast<int>(syscall(SYS_clock_gettime, clock, pResult));
}

// Not the intercepted function's inline wrapper: a raw wait.
void RealPause(timespec wait) {
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, &wait) == EINTR) {
  }
}

// True when the clock is fake; then the call has been kept and the clock moved on.
bool TakeCall(unsigned int uArgument, long long llMicros, bool bMicro, std::function<void(unsigned int)>& hook) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  if (!state.bFake) {
    return false;
  }
  std::vector<unsigned int>& vecCalls = bMicro ? state.vecMicroSleeps : state.vecSleeps;
  if (vecCalls.size() < kKeptCalls) {
    vecCalls.push_back(uArgument);
  }
  state.llMicros += llMicros;
  hook = bMicro ? state.microSleepHook : state.sleepHook;
  return true;
}

}  // namespace

CFakeClock::CFakeClock(time_t tNow) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.bFake = true;
  state.llMicros = tNow * kMicrosPerSecond;
}

CFakeClock::~CFakeClock() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.bFake = false;
  state.vecSleeps.clear();
  state.vecMicroSleeps.clear();
  state.sleepHook = nullptr;
  state.microSleepHook = nullptr;
}

void CFakeClock::Set(time_t tNow) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.llMicros = tNow * kMicrosPerSecond;
}

void CFakeClock::Advance(time_t tSeconds) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.llMicros += tSeconds * kMicrosPerSecond;
}

time_t CFakeClock::Now() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  return state.llMicros / kMicrosPerSecond;
}

std::vector<unsigned int> CFakeClock::Sleeps() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  return state.vecSleeps;
}

std::vector<unsigned int> CFakeClock::MicroSleeps() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  return state.vecMicroSleeps;
}

void CFakeClock::SetSleepHook(std::function<void(unsigned int)> hook) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.sleepHook = std::move(hook);
}

void CFakeClock::SetMicroSleepHook(std::function<void(unsigned int)> hook) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.microSleepHook = std::move(hook);
}

CFastMonotonicClock::CFastMonotonicClock() {
  t_bFastMonotonic = true;
}

CFastMonotonicClock::~CFastMonotonicClock() {
  t_bFastMonotonic = false;
  t_tMonotonicOffset = 0;
}

extern "C" {

QM_PLATFORM_API time_t time(time_t* pResult) noexcept {
  time_t tNow = 0;
  {
    State& state = TheState();
    const std::lock_guard lock(state.mutex);
    if (state.bFake) {
      tNow = state.llMicros / kMicrosPerSecond;
    }
  }
  if (tNow == 0) {
    timespec now{};
    RealClock(CLOCK_REALTIME, &now);
    tNow = now.tv_sec;
  }
  if (pResult != nullptr) {
    *pResult = tNow;
  }
  return tNow;
}

QM_PLATFORM_API unsigned int sleep(unsigned int uSeconds) {
  std::function<void(unsigned int)> hook;
  if (!TakeCall(uSeconds, uSeconds * kMicrosPerSecond, false, hook)) {
    RealPause({static_cast<time_t>(uSeconds), 0});
  } else if (hook) {
    hook(uSeconds);
  } else {
    RealPause({0, kSleepNanos});
  }
  return 0;
}

QM_PLATFORM_API int usleep(useconds_t uMicros) {
  std::function<void(unsigned int)> hook;
  if (!TakeCall(uMicros, uMicros, true, hook)) {
    RealPause({static_cast<time_t>(uMicros / kMicrosPerSecond),
               static_cast<long>(uMicros % kMicrosPerSecond) * (kNanosPerSecond / kMicrosPerSecond)});
  } else if (hook) {
    hook(uMicros);
  } else {
    RealPause({0, kMicroSleepNanos});
  }
  return 0;
}

QM_PLATFORM_API int clock_gettime(clockid_t clock, timespec* pResult) noexcept {
  const int iRet = RealClock(clock, pResult);
  if (iRet == 0 && clock == CLOCK_MONOTONIC && t_bFastMonotonic) {
    pResult->tv_sec += ++t_tMonotonicOffset;
  }
  return iRet;
}

}  // extern "C"
