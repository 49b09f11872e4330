// write, fdatasync and fallocate of this test program: the system's, unless a test has asked for a failure. Writes
// fail on regular files alone.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_LINK_FAILING_IO_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_LINK_FAILING_IO_H_

#include <atomic>
#include <cstdint>

struct FailingIo {
  // Bytes that may still be written before writes fail; negative: no limit.
  std::atomic<int64_t> i64WritableBytes{-1};
  std::atomic<int> iWriteError{0};
  // Errors that every call gives while non-zero.
  std::atomic<int> iSyncError{0};
  std::atomic<int> iReserveError{0};
  // Calls made.
  std::atomic<unsigned int> uWrites{0};
  std::atomic<unsigned int> uSyncs{0};
  std::atomic<unsigned int> uReserves{0};
  std::atomic<int64_t> i64LastReserve{0};

  void Reset();
};
extern FailingIo g_failingIo;

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_LINK_FAILING_IO_H_
