// Keeps the tests' own bookkeeping out of the allocations that a test lets fail.
#ifndef QMLOGCACHE_TESTS_SUPPORT_ALLOCATION_PAUSE_H_
#define QMLOGCACHE_TESTS_SUPPORT_ALLOCATION_PAUSE_H_

// While one lives, no allocation of the calling thread is made to fail or counted.
class CAllocationPause {
 public:
  CAllocationPause() { ++t_iPauses; }
  ~CAllocationPause() { --t_iPauses; }
  CAllocationPause(const CAllocationPause&) = delete;
  CAllocationPause& operator=(const CAllocationPause&) = delete;

  static bool IsPaused() { return t_iPauses != 0; }

 private:
  static inline thread_local int t_iPauses = 0;
};

#endif  // QMLOGCACHE_TESTS_SUPPORT_ALLOCATION_PAUSE_H_
