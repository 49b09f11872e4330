#include "failing_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

FailingIo g_failingIo;

void FailingIo::Reset() {
  i64WritableBytes = -1;
  iWriteError = 0;
  iSyncError = 0;
  iReserveError = 0;
  uWrites = 0;
  uSyncs = 0;
  uReserves = 0;
  i64LastReserve = 0;
}

namespace {

bool IsRegularFile(int iFd) {
  struct stat status {};
  return fstat(iFd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

extern "C" {

// The writes of the C++ library's streams go elsewhere (writev or its own alias), those of the code under test come
// here.
ssize_t write(int iFd, const void* pData, size_t uLength) {
  if (IsRegularFile(iFd)) {
    ++g_failingIo.uWrites;
    const int64_t i64Left = g_failingIo.i64WritableBytes;
    if (i64Left == 0) {
      errno = g_failingIo.iWriteError;
      return -1;
    }
    if (i64Left > 0) {
      uLength = std::min(uLength, static_cast<size_t>(i64Left));
      g_failingIo.i64WritableBytes -= static_cast<int64_t>(uLength);
    }
  }
  return syscall(SYS_write, iFd, pData, uLength);
}

int fdatasync(int iFd) {
  ++g_failingIo.uSyncs;
  if (g_failingIo.iSyncError != 0) {
    errno = g_failingIo.iSyncError;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fdatasync, iFd));
}

int fallocate(int iFd, int iMode, off_t offset, off_t length) {
  ++g_failingIo.uReserves;
  g_failingIo.i64LastReserve = length;
  if (g_failingIo.iReserveError != 0) {
    errno = g_failingIo.iReserveError;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fallocate, iFd, iMode, offset, length));
}
}
