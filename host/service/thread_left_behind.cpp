#include "host/service/thread_left_behind.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace {
std::atomic<bool> g_bLeftBehind{false};
}  // namespace

void NoteThreadLeftBehind() noexcept {
  g_bLeftBehind = true;
}

int ExitStatus(int iStatus) noexcept {
  if (g_bLeftBehind) {
    // Not all streams: the thread may be in the middle of reading one, with its lock.
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(iStatus);
  }
  return iStatus;
}
