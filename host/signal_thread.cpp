#include "host/signal_thread.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "host/router/thread_setup.h"

namespace {

// Sent by the destructor and the watchdog alone; from elsewhere it does nothing.
constexpr int kPokeSignal = SIGUSR1;
// Stop signals that come closer together are one request.
constexpr std::chrono::seconds kOneRequest{2};

bool IsIgnored(int iSignal) {
  struct sigaction action {};
  return sigaction(iSignal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t TakenSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int iSignal : {SIGTERM, SIGHUP, kPokeSignal}) {
    sigaddset(&signals, iSignal);
  }
  // A signal that is waited for arrives even when it is ignored.
  if (!IsIgnored(SIGINT)) {
    sigaddset(&signals, SIGINT);
  }
  return signals;
}

}  // namespace

CSignalThread::CSignalThread() : m_Signals(TakenSignals()) {
  pthread_sigmask(SIG_BLOCK, &m_Signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  m_Thread = std::thread([this] { Run(); });
}

CSignalThread::~CSignalThread() {
  m_bEnding = true;
  Poke();
  m_Thread.join();
}

void CSignalThread::Poke() {
  pthread_kill(m_Thread.native_handle(), kPokeSignal);
}

HostEvent CSignalThread::Wait() {
  std::unique_lock<std::mutex> guard(m_Lock);
  while (!m_bReload && !m_bStop) {
    if (std::exchange(m_bTurn, false)) {
      m_Loop.Turn();
    }
    m_Changed.wait(guard, [this] { return m_bReload || m_bStop || m_bTurn; });
  }
  if (m_bStop) {
    return HostEvent::Stop;
  }
  m_bReload = false;
  return HostEvent::Reload;
}

void CSignalThread::Run() {
  SetUpThread("qmhost-signal");
  const CLoopThread loopThread(m_Loop);
  while (!m_bEnding) {
    int iSignal = 0;
    if (sigwait(&m_Signals, &iSignal) != 0) {
      continue;
    }
    const std::lock_guard<std::mutex> guard(m_Lock);
    if (iSignal == kPokeSignal) {
      m_bTurn = m_Loop.IsTurnDue();
    } else if (iSignal == SIGHUP) {
      m_bReload = true;
    } else if (!m_bStop) {
      m_bStop = true;
      m_FirstStop = std::chrono::steady_clock::now();
    } else if (std::chrono::steady_clock::now() - m_FirstStop >= kOneRequest) {
      constexpr std::string_view kText = "qmhost: told to stop a second time, ending at once\n";
      static_cast<void>(!write(STDERR_FILENO, kText.data(), kText.size()));
      _exit(128 + iSignal);
    }
    m_Changed.notify_all();
  }
}
