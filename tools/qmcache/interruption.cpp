#include "tools/qmcache/interruption.h"

#include <csignal>
#include <initializer_list>

namespace {

volatile sig_atomic_t g_iSignal = 0;

void OnSignal(int iSignal) {
  g_iSignal = iSignal;
}

}  // namespace

void NoticeSignals() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  for (const int iSignal : {SIGHUP, SIGINT, SIGTERM}) {
    // A shell ignores SIGINT for its background jobs, nohup SIGHUP, and that stays so.
    struct sigaction old {};
    if (sigaction(iSignal, nullptr, &old) == 0 && old.sa_handler != SIG_IGN) {
      sigaction(iSignal, &action, nullptr);
    }
  }
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

int SignalThatCame() {
  return g_iSignal;
}

void EndIfInterrupted() {
  if (g_iSignal != 0) {
    throw Interruption{g_iSignal};
  }
}
