#include "client/wake_descriptor.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

CWakeDescriptor::~CWakeDescriptor() {
  for (const int iDescriptor : {m_iTimer, m_iEpoll}) {
    if (iDescriptor >= 0) {
      ::close(iDescriptor);
    }
  }
}

bool CWakeDescriptor::Open() {
  m_iEpoll = ::epoll_create1(EPOLL_CLOEXEC);
  m_iTimer = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  return m_iEpoll >= 0 && m_iTimer >= 0 && ::epoll_ctl(m_iEpoll, EPOLL_CTL_ADD, m_iTimer, &event) == 0;
}

void CWakeDescriptor::Watch(int iSocket, bool bWritable) {
  if (iSocket < 0 || (iSocket == m_iSocket && bWritable == m_bWritable)) {
    return;
  }
  epoll_event event{};
  event.events = EPOLLIN | (bWritable ? static_cast<uint32_t>(EPOLLOUT) : 0U);
  if (::epoll_ctl(m_iEpoll, iSocket == m_iSocket ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, iSocket, &event) == 0) {
    m_iSocket = iSocket;
    m_bWritable = bWritable;
  }
}

void CWakeDescriptor::Forget(int iSocket) {
  if (iSocket == m_iSocket) {
    ::epoll_ctl(m_iEpoll, EPOLL_CTL_DEL, iSocket, nullptr);
    m_iSocket = -1;
  }
}

void CWakeDescriptor::WakeAt(std::optional<Clock::time_point> time) {
  if (time == m_wakeAt) {
    return;
  }
  itimerspec when{};
  if (time) {
    // A time of zero would switch the timer off.
    const auto since = std::max(time->time_since_epoch(), Clock::duration{1});
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    when.it_value.tv_sec = seconds.count();
    when.it_value.tv_nsec = std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count();
  }
  if (::timerfd_settime(m_iTimer, TFD_TIMER_ABSTIME, &when, nullptr) == 0) {
    m_wakeAt = time;
  }
}

void CWakeDescriptor::Wait(std::optional<Clock::time_point> until) const {
  timespec left{};
  if (until) {
    const auto time = std::max(*until - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    left.tv_sec = seconds.count();
    left.tv_nsec = std::chrono::duration_cast<std::chrono::nanoseconds>(time - seconds).count();
  }
  pollfd descriptor{m_iEpoll, POLLIN, 0};
  ::ppoll(&descriptor, 1, until ? &left : nullptr, nullptr);
}
