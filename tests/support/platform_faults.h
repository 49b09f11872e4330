// Platform functions that delegate to the library and fail, call back or wait less on request.
//
// QmMsgQueueInsert, QmCreateEvent, QmSetEvent and QmWaitEventTimeout are defined in the test executable. All functions
// may be called from any thread; hooks run without a lock.
#ifndef QMLOGCACHE_TESTS_SUPPORT_PLATFORM_FAULTS_H_
#define QMLOGCACHE_TESTS_SUPPORT_PLATFORM_FAULTS_H_

#include <functional>
#include <vector>

class CPlatformFaults {
 public:
  // Back to plain delegation.
  static void Reset();
  // Insertions into queues fail while this is on.
  static void RefuseQueueInserts(bool bRefuse);
  // Creation of events gives null while this is on.
  static void RefuseEvents(bool bRefuse);
  // Called before each QmSetEvent with its handle, and before each QmMsgQueueInsert (where it may still say whether
  // that one is refused).
  static void SetEventHook(std::function<void(void*)> hook);
  static void SetInsertHook(std::function<void()> hook);
  // No wait for an event takes longer than this in real time; it still tells whether the event was set. The default is
  // not to shorten.
  static void ShortenWaits(unsigned int dwMilliseconds);
  // Called before each wait with its handle and the asked milliseconds.
  static void SetWaitHook(std::function<void(void*, unsigned int)> hook);
  // The milliseconds asked for by the first hundred thousand waits since Reset.
  static std::vector<unsigned int> Waits();
};

#endif  // QMLOGCACHE_TESTS_SUPPORT_PLATFORM_FAULTS_H_
