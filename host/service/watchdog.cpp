#include "host/service/watchdog.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "host/router/thread_setup.h"
#include "host/service/loop.h"

namespace {

// How often late loops are woken again and looked at.
constexpr std::chrono::microseconds kLook{50000};

}  // namespace

CWatchdog::CWatchdog(std::chrono::microseconds period, std::function<void()> fnFeed,
                     std::function<void(const std::string&)> fnStuck)
    : m_Period(period), m_fnFeed(std::move(fnFeed)), m_fnStuck(std::move(fnStuck)), m_Thread([this] { Run(); }) {}

CWatchdog::~CWatchdog() {
  {
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_bStopping = true;
    m_Changed.notify_all();
  }
  m_Thread.join();
}

void CWatchdog::Run() {
  SetUpThread("qmhost-watchdog");
  for (bool bGoOn = true; bGoOn;) {
    const auto end = Clock::now() + m_Period;
    try {
      bGoOn = Round(end) && WaitUntil(end);
    } catch (const std::exception&) {
      // No memory for a name or a line: nothing is fed, and the next round tries again.
      bGoOn = WaitUntil(end);
    }
  }
}

bool CWatchdog::Round(Clock::time_point end) {
  CLoop::AskAll();
  std::string strLate = CLoop::WakeLate();
  while (!strLate.empty() && Clock::now() < end) {
    if (!WaitUntil(std::min(end, Clock::now() + kLook))) {
      return false;
    }
    strLate = CLoop::WakeLate();
  }
  if (strLate.empty()) {
    m_fnFeed();
  } else {
    m_fnStuck(strLate);
  }
  return true;
}

bool CWatchdog::WaitUntil(Clock::time_point until) {
  std::unique_lock<std::mutex> guard(m_Lock);
  return !m_Changed.wait_until(guard, until, [this] { return m_bStopping; });
}
