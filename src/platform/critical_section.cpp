#include "platform/critical_section.h"

#include <pthread.h>

#include <cerrno>

#include "platform/api.h"

static_assert(sizeof(pthread_mutex_t) <= sizeof(QmCriticalSection::abOpaque));
static_assert(alignof(pthread_mutex_t) <= alignof(QmCriticalSection));

namespace {

pthread_mutex_t* MutexOf(QmCriticalSection* pCs) {
  return reinterpret_cast<pthread_mutex_t*>(pCs->abOpaque);
}

}  // namespace

extern "C" {

QM_PLATFORM_API int QmInitializeCriticalSection(QmCriticalSection* pCs) {
  if (pCs == nullptr) {
    return EINVAL;
  }
  pthread_mutexattr_t attr;
  int iResult = pthread_mutexattr_init(&attr);
  if (iResult != 0) {
    return iResult;
  }
  iResult = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  if (iResult == 0) {
    iResult = pthread_mutex_init(MutexOf(pCs), &attr);
  }
  pthread_mutexattr_destroy(&attr);
  return iResult;
}

// The analysis does not know pthread mutexes: these two are where its capability meets one.
QM_PLATFORM_API int QmLockCriticalSection(QmCriticalSection* pCs) QM_NO_THREAD_SAFETY_ANALYSIS {
  return pCs == nullptr ? EINVAL : pthread_mutex_lock(MutexOf(pCs));
}

QM_PLATFORM_API int QmUnlockCriticalSection(QmCriticalSection* pCs) QM_NO_THREAD_SAFETY_ANALYSIS {
  return pCs == nullptr ? EINVAL : pthread_mutex_unlock(MutexOf(pCs));
}

QM_PLATFORM_API int QmDeleteCriticalSection(QmCriticalSection* pCs) {
  return pCs == nullptr ? EINVAL : pthread_mutex_destroy(MutexOf(pCs));
}

}  // extern "C"
