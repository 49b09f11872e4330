#include "manager/callback_scope.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <thread>

namespace {

constexpr size_t kKinds = 2;

// Callbacks that are inside, by kind. Every record costs several, on several threads, so the count is kept in parts, each
// in a cache line of its own; a thread counts in and out of the same one.
struct alignas(64) Part {
  std::array<std::atomic<long>, kKinds> aInside{};
};

// Sequentially consistent throughout: a callback counts itself in and then looks for the manager, Close takes the
// manager away and then looks at the counts, so that one of them sees the other.
std::atomic<CLogCacheMgr*> g_pOpenManager{nullptr};
std::array<Part, 16> g_aParts{};
std::atomic<size_t> g_uThreads{0};
thread_local Part& t_part = g_aParts[g_uThreads.fetch_add(1) % g_aParts.size()];
thread_local std::array<long, kKinds> t_aInside{};

size_t IndexOf(CallbackKind kind) {
  return static_cast<size_t>(kind);
}

long CountInside(size_t uIndex) {
  long lInside = 0;
  for (const Part& part : g_aParts) {
    lInside += part.aInside[uIndex].load();
  }
  return lInside;
}

}  // namespace

CCallbackScope::CCallbackScope(CallbackKind kind) : m_kind(kind) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iCancelState);
  ++t_part.aInside[IndexOf(kind)];
  ++t_aInside[IndexOf(kind)];
  m_pManager = g_pOpenManager.load();
}

CCallbackScope::~CCallbackScope() {
  --t_aInside[IndexOf(m_kind)];
  --t_part.aInside[IndexOf(m_kind)];
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
  while (CountInside(uIndex) > t_aInside[uIndex]) {
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
