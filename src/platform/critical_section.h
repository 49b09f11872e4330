// Re-entrant lock of the base library, and the RAII guard through which the component takes it.
//
// A QmCriticalSection is held by value; it must be initialised before its first use and deleted after its last, and is
// neither copied nor moved in between. The owner may lock it again; it is free when every lock has been undone.
#ifndef QMLOGCACHE_PLATFORM_CRITICAL_SECTION_H_
#define QMLOGCACHE_PLATFORM_CRITICAL_SECTION_H_

#include "platform/thread_annotations.h"

struct QM_CAPABILITY("critical section") QmCriticalSection {
  alignas(16) unsigned char abOpaque[64];
};

extern "C" {
// 0 for success, else an errno value.
int QmInitializeCriticalSection(QmCriticalSection* pCs);
int QmLockCriticalSection(QmCriticalSection* pCs) QM_ACQUIRE(*pCs);
int QmUnlockCriticalSection(QmCriticalSection* pCs) QM_RELEASE(*pCs);
// The section must be free.
int QmDeleteCriticalSection(QmCriticalSection* pCs);
}

// Holds the section for its own lifetime.
class QM_SCOPED_CAPABILITY CCriticalSectionGuard {
 public:
  explicit CCriticalSectionGuard(QmCriticalSection& cs) QM_ACQUIRE(cs) : m_cs(cs) { QmLockCriticalSection(&m_cs); }
  ~CCriticalSectionGuard() QM_RELEASE() { QmUnlockCriticalSection(&m_cs); }
  CCriticalSectionGuard(const CCriticalSectionGuard&) = delete;
  CCriticalSectionGuard& operator=(const CCriticalSectionGuard&) = delete;

 private:
  QmCriticalSection& m_cs;
};

#endif  // QMLOGCACHE_PLATFORM_CRITICAL_SECTION_H_
