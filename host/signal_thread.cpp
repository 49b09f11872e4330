#include "host/signal_thread.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <string_view>

#include "host/router/thread_setup.h"

namespace {

// Sent by the destructor alone; from elsewhere it does nothing.
constexpr int kEndSignal = SIGUSR1;

sigset_t TakenSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int iSignal : {SIGTERM, SIGINT, SIGHUP, kEndSignal}) {
    sigaddset(&signals, iSignal);
  }
  return signals;
}

}  // namespace

CSignalThread::CSignalThread() {
  const sigset_t signals = TakenSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  m_Thread = std::thread([this] { Run(); });
}

CSignalThread::~CSignalThread() {
  m_bEnding = true;
  pthread_kill(m_Thread.native_handle(), kEndSignal);
  m_Thread.join();
}

HostEvent CSignalThread::Wait() {
  std::unique_lock<std::mutex> guard(m_Lock);
  m_Changed.wait(guard, [this] { return m_bReload || m_bStop; });
  if (m_bStop) {
    return HostEvent::Stop;
  }
  m_bReload = false;
  return HostEvent::Reload;
}

void CSignalThread::Run() {
  SetUpThread("qmhost-signal");
  const sigset_t signals = TakenSignals();
  while (!m_bEnding) {
    int iSignal = 0;
    if (sigwait(&signals, &iSignal) != 0 || iSignal == kEndSignal) {
      continue;
    }
    const std::lock_guard<std::mutex> guard(m_Lock);
    if (iSignal == SIGHUP) {
      m_bReload = true;
    } else if (!m_bStop) {
      m_bStop = true;
    } else {
      constexpr std::string_view kText = "qmhost: told to stop a second time, ending at once\n";
      static_cast<void>(!write(STDERR_FILENO, kText.data(), kText.size()));
      _exit(128 + iSignal);
    }
    m_Changed.notify_all();
  }
}
