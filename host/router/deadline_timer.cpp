#include "host/router/deadline_timer.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "host/router/thread_setup.h"

namespace {

// Between two looks, so that many deadlines close together do not make many looks.
constexpr MonotonicMs kShortestPauseMs = 10;

}  // namespace

CDeadlineTimer::CDeadlineTimer(std::function<MonotonicMs(MonotonicMs)> fnExpire)
    : m_fnExpire(std::move(fnExpire)), m_Thread([this] { Run(); }) {}

CDeadlineTimer::~CDeadlineTimer() {
  Stop();
}

MonotonicMs CDeadlineTimer::Now() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Whoever reads a wake-up time from before the look set its deadline before the look too, and is found by it.
void CDeadlineTimer::Announce(MonotonicMs i64Deadline) {
  if (i64Deadline >= m_i64Wake.load(std::memory_order_seq_cst)) {
    return;
  }
  const std::lock_guard<std::mutex> guard(m_Lock);
  if (i64Deadline < m_i64Announced) {
    m_i64Announced = i64Deadline;
    m_Changed.notify_one();
  }
}

void CDeadlineTimer::Stop() {
  {
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_bStopping = true;
    m_Changed.notify_one();
  }
  if (m_Thread.joinable()) {
    m_Thread.join();
  }
}

void CDeadlineTimer::Run() {
  SetUpThread("qmhost-timer");
  const CLoopThread loopThread(m_Loop);
  MonotonicMs i64Found = kNoDeadline;
  std::unique_lock<std::mutex> guard(m_Lock);
  while (!m_bStopping) {
    m_Loop.Turn();
    const MonotonicMs i64Wake = std::min(i64Found, m_i64Announced);
    m_i64Wake.store(i64Wake, std::memory_order_seq_cst);
    const auto fnChanged = [this, i64Wake] { return m_bStopping || m_i64Announced < i64Wake || m_Loop.IsTurnDue(); };
    if (i64Wake == kNoDeadline) {
      m_Changed.wait(guard, fnChanged);
      continue;
    }
    if (Now() < i64Wake) {
      m_Changed.wait_until(guard, std::chrono::steady_clock::time_point(std::chrono::milliseconds(i64Wake)), fnChanged);
      continue;
    }
    m_i64Announced = kNoDeadline;
    m_i64Wake.store(kNoDeadline, std::memory_order_seq_cst);
    guard.unlock();
    i64Found = m_fnExpire(Now());
    if (i64Found != kNoDeadline) {
      i64Found = std::max(i64Found, Now() + kShortestPauseMs);
    }
    guard.lock();
  }
}
