#include "tools/qmsend/interrupt.h"

#include <algorithm>
#include <ctime>

namespace {

volatile sig_atomic_t g_iSignals = 0;

void OnSignal(int) {
  g_iSignals = g_iSignals + 1;
}

}  // namespace

CInterrupt::CInterrupt() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int iSignal : {SIGINT, SIGTERM}) {
    sigaddset(&blocked, iSignal);
    // A shell ignores SIGINT for its background jobs, and that stays so.
    struct sigaction old {};
    if (::sigaction(iSignal, nullptr, &old) == 0 && old.sa_handler != SIG_IGN) {
      ::sigaction(iSignal, &action, nullptr);
    }
  }
  action.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &action, nullptr);
  pthread_sigmask(SIG_BLOCK, &blocked, &m_oldMask);
}

CInterrupt::~CInterrupt() {
  pthread_sigmask(SIG_SETMASK, &m_oldMask, nullptr);
}

int CInterrupt::Wait(pollfd* pDescriptors, size_t uCount, int iTimeoutMs) {
  timespec time{};
  time.tv_sec = std::max(iTimeoutMs, 0) / 1000;
  time.tv_nsec = static_cast<long>(std::max(iTimeoutMs, 0) % 1000) * 1000000L;
  return ::ppoll(pDescriptors, uCount, iTimeoutMs < 0 ? nullptr : &time, &m_oldMask);
}

int CInterrupt::Count() {
  return g_iSignals;
}
