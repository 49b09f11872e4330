#include "replaced_clock.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "hang_guard.h"
#include "platform/event.h"

namespace {

constexpr uint64_t kNanosecondsPerSecond = 1000000000;

time_t RealTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

void RealSleep(uint64_t u64Nanoseconds) {
  timespec left{static_cast<time_t>(u64Nanoseconds / kNanosecondsPerSecond),
                static_cast<long>(u64Nanoseconds % kNanosecondsPerSecond)};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
  }
}

}  // namespace

CReplacedClock& CReplacedClock::Get() {
  static auto* pClock = new CReplacedClock;  // never destroyed: threads may wait until the very end
  return *pClock;
}

void CReplacedClock::Reset() {
  constexpr uint64_t kSleep = 1000;
  constexpr uint64_t kMicroSleep = 4;  // a stop waits 15 seconds for its threads
  constexpr uint64_t kEvent = 50;
  m_bFrozen = false;
  m_tShown = 0;
  m_uSleepDivisor = kSleep;
  m_uMicroSleepDivisor = kMicroSleep;
  m_uEventDivisor = kEvent;
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_mapSleeps.clear();
  m_mapEventWaits.clear();
  m_bHoldEventWaits = false;
  m_counted.notify_all();
}

void CReplacedClock::SetRealWaitEvent(WaitEventFunc pfnWaitEvent) {
  m_pfnRealWaitEvent = pfnWaitEvent;
}

void CReplacedClock::Freeze(time_t tNow) {
  m_tShown = tNow;
  m_bFrozen = true;
}

void CReplacedClock::Advance(time_t tSeconds) {
  m_tShown += tSeconds;
}

time_t CReplacedClock::Now() const {
  return m_bFrozen ? m_tShown.load() : RealTime() + m_tShown;
}

void CReplacedClock::SetSleepDivisor(uint64_t u64Divisor) {
  m_uSleepDivisor = u64Divisor;
}
void CReplacedClock::SetMicroSleepDivisor(uint64_t u64Divisor) {
  m_uMicroSleepDivisor = u64Divisor;
}
void CReplacedClock::SetEventDivisor(uint64_t u64Divisor) {
  m_uEventDivisor = u64Divisor;
}

uint64_t CReplacedClock::SleepsOf(const std::string& strThread) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_mapSleeps[strThread];
}

uint64_t CReplacedClock::EventWaits(unsigned int dwMilliseconds) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_mapEventWaits[dwMilliseconds];
}

bool CReplacedClock::WaitForEventWaits(unsigned int dwMilliseconds, uint64_t uMore) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const uint64_t u64Goal = m_mapEventWaits[dwMilliseconds] + uMore;
  return m_counted.wait_for(lock, kHangGuard, [&] { return m_mapEventWaits[dwMilliseconds] >= u64Goal; });
}

bool CReplacedClock::HoldEventWaits() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_bHoldEventWaits = true;
  return m_counted.wait_for(lock, kHangGuard, [&] { return m_iHeldEventWaits > 0; });
}

void CReplacedClock::ReleaseEventWaits() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_bHoldEventWaits = false;
  m_counted.notify_all();
}

void CReplacedClock::StayWhileHeld() {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_bHoldEventWaits) {
    return;
  }
  ++m_iHeldEventWaits;
  m_counted.notify_all();
  m_counted.wait(lock, [&] { return !m_bHoldEventWaits; });
  --m_iHeldEventWaits;
}

void CReplacedClock::Sleep(unsigned int uSeconds) {
  {
    std::array<char, 17> szName{};
    prctl(PR_GET_NAME, szName.data());
    const std::lock_guard<std::mutex> guard(m_mutex);
    ++m_mapSleeps[szName.data()];
  }
  RealSleep(uSeconds * kNanosecondsPerSecond / m_uSleepDivisor);
}

void CReplacedClock::MicroSleep(unsigned int uMicroseconds) const {
  constexpr uint64_t kNanosecondsPerMicrosecond = 1000;
  RealSleep(uMicroseconds * kNanosecondsPerMicrosecond / m_uMicroSleepDivisor);
}

int CReplacedClock::WaitEvent(void* hEvent, unsigned int dwMilliseconds) {
  {
    const std::lock_guard<std::mutex> guard(m_mutex);
    ++m_mapEventWaits[dwMilliseconds];
    m_counted.notify_all();
  }
  const auto dwShort = static_cast<unsigned int>(dwMilliseconds / m_uEventDivisor);
  const int iRet = m_pfnRealWaitEvent.load()(hEvent, std::max(dwShort, 1U));
  StayWhileHeld();
  return iRet;
}

#define HOST_EXPORT __attribute__((visibility("default")))

extern "C" {
HOST_EXPORT time_t time(time_t* pTime) noexcept {
  const time_t tNow = CReplacedClock::Get().Now();
  if (pTime != nullptr) {
    *pTime = tNow;
  }
  return tNow;
}

HOST_EXPORT unsigned int sleep(unsigned int uSeconds) {
  CReplacedClock::Get().Sleep(uSeconds);
  return 0;
}

HOST_EXPORT int usleep(useconds_t uMicroseconds) {
  CReplacedClock::Get().MicroSleep(uMicroseconds);
  return 0;
}

HOST_EXPORT int QmWaitEventTimeout(void* hEvent, unsigned int dwMilliseconds) {
  return CReplacedClock::Get().WaitEvent(hEvent, dwMilliseconds);
}
}
