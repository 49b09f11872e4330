#include "manager/callback_scope.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <thread>

namespace {

// Sequentially consistent throughout: a callback counts itself in and then looks for the manager, Close takes the
// manager away and then looks at the count, so that one of them sees the other.
std::atomic<CLogCacheMgr*> g_pOpenManager{nullptr};
std::array<std::atomic<long>, 2> g_aInside{};
thread_local std::array<long, 2> t_aInside{};

size_t IndexOf(CallbackKind kind) {
  return static_cast<size_t>(kind);
}

}  // namespace

CCallbackScope::CCallbackScope(CallbackKind kind) : m_kind(kind) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iCancelState);
  ++g_aInside[IndexOf(kind)];
  ++t_aInside[IndexOf(kind)];
  m_pManager = g_pOpenManager.load();
}

CCallbackScope::~CCallbackScope() {
  --t_aInside[IndexOf(m_kind)];
  --g_aInside[IndexOf(m_kind)];
  pthread_setcancelstate(m_iCancelState, nullptr);
}

void CCallbackScope::SetManager(CLogCacheMgr* pManager) {
  g_pOpenManager.store(pManager);
}

CCallbackScope::Deadline CCallbackScope::LongestWait() {
  constexpr auto kLongest = std::chrono::seconds(10);
  return std::chrono::steady_clock::now() + kLongest;
}

bool CCallbackScope::WaitUntilOutside(CallbackKind kind, Deadline deadline) {
  constexpr auto kLookAgain = std::chrono::milliseconds(1);
  const size_t uIndex = IndexOf(kind);
  while (g_aInside[uIndex].load() > t_aInside[uIndex]) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(kLookAgain);
  }
  return true;
}

bool CCallbackScope::WaitUntilOutside(Deadline deadline) {
  const bool bReceive = WaitUntilOutside(CallbackKind::Receive, deadline);
  return WaitUntilOutside(CallbackKind::SendCompletion, deadline) && bReceive;
}
