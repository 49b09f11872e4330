#include "client/core/in_flight.h"

#include <algorithm>

namespace {

// A slot that one long record made larger than this does not keep the memory.
constexpr size_t kKeptPayload = 16U << 10;

}  // namespace

void CRecordQueue::Append(PendingRecord& record) noexcept {
  record.pNext = nullptr;
  (m_pFirst == nullptr ? m_pFirst : m_pLast->pNext) = &record;
  m_pLast = &record;
}

PendingRecord& CInFlight::Take() {
  if (m_vecFree.empty()) {
    // Room to give every slot back and to list it, which must not fail later.
    if (m_vecFree.capacity() <= m_queSlots.size()) {
      const size_t uRoom = 2 * m_queSlots.size() + 64;
      m_vecInOrder.reserve(uRoom);
      m_vecFree.reserve(uRoom);
    }
    m_queSlots.emplace_back();
    m_queSlots.back().uSlot = static_cast<uint32_t>(m_queSlots.size() - 1);
    m_vecFree.push_back(m_queSlots.back().uSlot);
  }
  PendingRecord& record = m_queSlots[m_vecFree.back()];
  m_vecFree.pop_back();
  record.state = PendingRecord::State::ToSend;
  record.bSent = false;
  record.bMayBeTaken = false;
  record.giveUp.reset();
  record.uLastStatus = 0;
  record.sender.reset();
  return record;
}

uint64_t CInFlight::MarkSent(PendingRecord& record) noexcept {
  record.state = PendingRecord::State::OnWire;
  ++m_uOnWire;
  ++record.uGeneration;
  record.bSent = true;
  return static_cast<uint64_t>(record.uGeneration) << 32 | record.uSlot;
}

void CInFlight::MarkToSend(PendingRecord& record) noexcept {
  TakeOffWire(record);
  m_queToSend.Append(record);
}

void CInFlight::MarkToSendAgain(PendingRecord& record, PendingRecord::TimePoint due) noexcept {
  TakeOffWire(record);
  record.due = due;
  m_queToSendAgain.Append(record);
}

void CInFlight::TakeOffWire(PendingRecord& record) noexcept {
  if (record.state == PendingRecord::State::OnWire) {
    --m_uOnWire;
  }
  record.state = PendingRecord::State::ToSend;
}

PendingRecord* CInFlight::Find(uint64_t u64RequestId) {
  const auto uSlot = static_cast<uint32_t>(u64RequestId);
  if (uSlot >= m_queSlots.size()) {
    return nullptr;
  }
  PendingRecord& record = m_queSlots[uSlot];
  return record.state == PendingRecord::State::OnWire && record.uGeneration == u64RequestId >> 32 ? &record : nullptr;
}

void CInFlight::Release(PendingRecord& record) noexcept {
  if (record.state == PendingRecord::State::OnWire) {
    --m_uOnWire;
  }
  m_uBytes -= record.strPayload.size();
  record.state = PendingRecord::State::Free;
  record.strPayload.clear();
  if (record.strPayload.capacity() > kKeptPayload) {
    record.strPayload.shrink_to_fit();
  }
  m_vecFree.push_back(record.uSlot);
}

void CInFlight::ForgetQueue() noexcept {
  m_queToSend.Clear();
  m_queToSendAgain.Clear();
}

PendingRecord* CInFlight::NextToSend(PendingRecord::TimePoint now) const noexcept {
  if (!m_queToSend.Empty()) {
    return m_queToSend.First();
  }
  return m_queToSendAgain.Empty() || m_queToSendAgain.First()->due > now ? nullptr : m_queToSendAgain.First();
}

void CInFlight::RemoveNext(const PendingRecord* pRecord) noexcept {
  (m_queToSend.First() == pRecord ? m_queToSend : m_queToSendAgain).RemoveFirst();
}

std::optional<PendingRecord::TimePoint> CInFlight::NextDue() const noexcept {
  if (!m_queToSend.Empty()) {
    return PendingRecord::TimePoint{};
  }
  return m_queToSendAgain.Empty() ? std::nullopt : std::optional(m_queToSendAgain.First()->due);
}

const std::vector<PendingRecord*>& CInFlight::InOrder(bool bOnlyOnWire) noexcept {
  m_vecInOrder.clear();
  for (PendingRecord& record : m_queSlots) {
    if (bOnlyOnWire ? record.state == PendingRecord::State::OnWire : record.state != PendingRecord::State::Free) {
      m_vecInOrder.push_back(&record);
    }
  }
  std::sort(m_vecInOrder.begin(), m_vecInOrder.end(),
            [](const PendingRecord* pLeft, const PendingRecord* pRight) { return pLeft->u64Order < pRight->u64Order; });
  return m_vecInOrder;
}
