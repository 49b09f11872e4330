#include "host/router/activity_gate.h"

namespace {

// The innermost scope of this thread.
thread_local CActivityScope* t_pInnermost = nullptr;

}  // namespace

// The counters and the flag are accessed in one total order: either the one who enters sees the gate closed, or the one
// who closes sees the count; likewise for leaving. Once the gate is closed a part can only fall but for those who enter
// and leave at once, so a sum read part by part is never too low.
bool CActivityGate::Enter() {
  m_arrCounts[ThreadShard()].u64Active.fetch_add(1, std::memory_order_seq_cst);
  if (!m_bClosed.load(std::memory_order_seq_cst)) {
    return true;
  }
  Leave();
  return false;
}

void CActivityGate::Leave() {
  m_arrCounts[ThreadShard()].u64Active.fetch_sub(1, std::memory_order_seq_cst);
  if (m_bClosed.load(std::memory_order_seq_cst)) {
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_Left.notify_all();
  }
}

uint64_t CActivityGate::CountActive() const {
  uint64_t u64Active = 0;
  for (const Count& count : m_arrCounts) {
    u64Active += count.u64Active.load(std::memory_order_seq_cst);
  }
  return u64Active;
}

void CActivityGate::CloseAndWait() {
  m_bClosed.store(true, std::memory_order_seq_cst);
  const uint64_t u64Own = CActivityScope::OwnDepth(*this);
  std::unique_lock<std::mutex> guard(m_Lock);
  m_Left.wait(guard, [this, u64Own] { return CountActive() <= u64Own; });
}

CActivityScope::CActivityScope(CActivityGate& gate) {
  if (gate.Enter()) {
    m_pGate = &gate;
    m_pOuter = t_pInnermost;
    t_pInnermost = this;
  }
}

CActivityScope::~CActivityScope() {
  if (m_pGate != nullptr) {
    t_pInnermost = m_pOuter;
    m_pGate->Leave();
  }
}

uint64_t CActivityScope::OwnDepth(const CActivityGate& gate) {
  uint64_t u64Depth = 0;
  for (const CActivityScope* pScope = t_pInnermost; pScope != nullptr; pScope = pScope->m_pOuter) {
    u64Depth += pScope->m_pGate == &gate ? 1 : 0;
  }
  return u64Depth;
}
