// Calls that fail on request: what the component and SQLite call of the system, of SQLite, of zlib and of the platform
// library. The executable defines these functions; the component must take its.
//
// Every operation may be called from any thread.
#ifndef QMLOGCACHE_TESTS_ENDURANCE_FAILING_CALLS_H_
#define QMLOGCACHE_TESTS_ENDURANCE_FAILING_CALLS_H_

#include <cstdint>

enum class CallKind {
  None,
  Sqlite,     // opening, executing, preparing, stepping, checkpoints
  File,       // opening, reading, writing, syncing, truncating, looking at files
  Directory,  // making, reading, renaming, removing
  Zlib,
  Event,
  Queue,
  Thread,
  Payload,  // copies of texts
};

// While it lives, the uNth call of that kind fails, or that one and all after it. One at a time.
class CFailingCalls {
 public:
  CFailingCalls(CallKind kind, uint64_t u64Nth, bool bAndAllAfter);
  ~CFailingCalls();
  CFailingCalls(const CFailingCalls&) = delete;
  CFailingCalls& operator=(const CFailingCalls&) = delete;
  // Calls of the kind so far.
  static uint64_t Count();
};

#endif  // QMLOGCACHE_TESTS_ENDURANCE_FAILING_CALLS_H_
