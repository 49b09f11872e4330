// What every thread of the host does first.
#ifndef QMLOGCACHE_HOST_ROUTER_THREAD_SETUP_H_
#define QMLOGCACHE_HOST_ROUTER_THREAD_SETUP_H_

#include <pthread.h>
#include <signal.h>

// Blocks all signals for the calling thread, which the host's signal thread alone takes, and names it (at most 15
// characters).
inline void SetUpThread(const char* pszName) {
  sigset_t signals;
  sigfillset(&signals);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  pthread_setname_np(pthread_self(), pszName);
}

#endif  // QMLOGCACHE_HOST_ROUTER_THREAD_SETUP_H_
