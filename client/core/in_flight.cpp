#include "client/core/in_flight.h"

namespace {

// A slot that one long record made larger than this does not keep the memory.
constexpr size_t kKeptPayload = 16U << 10;

}  // namespace

PendingRecord& CInFlight::Take() {
  if (m_vecFree.empty()) {
    // Room to give every slot back, which must not fail later.
    if (m_vecFree.capacity() <= m_queSlots.size()) {
      m_vecFree.reserve(2 * m_queSlots.size() + 64);
    }
    m_queSlots.emplace_back();
    m_queSlots.back().uSlot = static_cast<uint32_t>(m_queSlots.size() - 1);
    m_vecFree.push_back(m_queSlots.back().uSlot);
  }
  PendingRecord& record = m_queSlots[m_vecFree.back()];
  m_vecFree.pop_back();
  record.state = PendingRecord::State::ToSend;
  record.bSent = false;
  record.giveUp.reset();
  record.uLastStatus = 0;
  record.sender.reset();
  return record;
}

uint64_t CInFlight::MarkSent(PendingRecord& record) {
  record.state = PendingRecord::State::OnWire;
  ++m_uOnWire;
  ++record.uGeneration;
  record.bSent = true;
  return static_cast<uint64_t>(record.uGeneration) << 32 | record.uSlot;
}

void CInFlight::MarkToSend(PendingRecord& record, PendingRecord::TimePoint due) {
  m_queToSend.push_back(record.uSlot);
  if (record.state == PendingRecord::State::OnWire) {
    --m_uOnWire;
  }
  record.state = PendingRecord::State::ToSend;
  record.due = due;
}

PendingRecord* CInFlight::Find(uint64_t u64RequestId) {
  const auto uSlot = static_cast<uint32_t>(u64RequestId);
  if (uSlot >= m_queSlots.size()) {
    return nullptr;
  }
  PendingRecord& record = m_queSlots[uSlot];
  return record.state == PendingRecord::State::OnWire && record.uGeneration == u64RequestId >> 32 ? &record : nullptr;
}

void CInFlight::Release(PendingRecord& record) {
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

PendingRecord* CInFlight::NextToSend(PendingRecord::TimePoint now) {
  if (m_queToSend.empty() || m_queSlots[m_queToSend.front()].due > now) {
    return nullptr;
  }
  PendingRecord* pRecord = &m_queSlots[m_queToSend.front()];
  m_queToSend.pop_front();
  return pRecord;
}

std::optional<PendingRecord::TimePoint> CInFlight::NextDue() const {
  if (m_queToSend.empty()) {
    return std::nullopt;
  }
  return m_queSlots[m_queToSend.front()].due;
}
