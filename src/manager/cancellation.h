// Where the component's threads may be cancelled.
//
// A thread of the component runs with cancellation disabled, so that it can never be torn down while it holds a lock.
// It opens a window only around a call into the host that may block for good. Unwinding runs destructors as usual;
// nothing on the way may catch everything without rethrowing.
#ifndef QMLOGCACHE_MANAGER_CANCELLATION_H_
#define QMLOGCACHE_MANAGER_CANCELLATION_H_

#include <pthread.h>

inline void DisableCancellation() {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

// While it lives the calling thread can be cancelled. Not to be made while a lock is held.
class CCancellationWindow {
 public:
  CCancellationWindow() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &m_iBefore); }
  ~CCancellationWindow() { pthread_setcancelstate(m_iBefore, nullptr); }
  CCancellationWindow(const CCancellationWindow&) = delete;
  CCancellationWindow& operator=(const CCancellationWindow&) = delete;

 private:
  int m_iBefore = PTHREAD_CANCEL_ENABLE;
};

#endif  // QMLOGCACHE_MANAGER_CANCELLATION_H_
