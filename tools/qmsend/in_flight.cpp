#include "tools/qmsend/in_flight.h"

#include <numeric>

namespace {

// A slot that one long record made larger than this does not keep the memory.
constexpr size_t kKeptPayload = 16U << 10;

}  // namespace

CInFlight::CInFlight(size_t uSlots, size_t uMaxBytes) : m_uMaxBytes(uMaxBytes), m_vecSlots(uSlots), m_vecFree(uSlots) {
  std::iota(m_vecFree.begin(), m_vecFree.end(), 0U);
}

bool CInFlight::HasRoom() const {
  return !m_vecFree.empty() && (m_uBytes < m_uMaxBytes || Empty());
}

PendingRecord& CInFlight::Take() {
  const uint32_t uSlot = m_vecFree.back();
  m_vecFree.pop_back();
  PendingRecord& record = m_vecSlots[uSlot];
  record.state = PendingRecord::State::ToSend;
  record.giveUp.reset();
  record.uLastStatus = 0;
  return record;
}

uint64_t CInFlight::MarkSent(PendingRecord& record) {
  record.state = PendingRecord::State::OnWire;
  ++m_uOnWire;
  ++record.uGeneration;
  return static_cast<uint64_t>(record.uGeneration) << 32 | IndexOf(record);
}

void CInFlight::MarkToSend(PendingRecord& record, PendingRecord::TimePoint due) {
  if (record.state == PendingRecord::State::OnWire) {
    --m_uOnWire;
  }
  record.state = PendingRecord::State::ToSend;
  record.due = due;
  m_queToSend.push_back(static_cast<uint32_t>(IndexOf(record)));
}

PendingRecord* CInFlight::Find(uint64_t u64RequestId) {
  const auto uSlot = static_cast<uint32_t>(u64RequestId);
  if (uSlot >= m_vecSlots.size()) {
    return nullptr;
  }
  PendingRecord& record = m_vecSlots[uSlot];
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
  m_vecFree.push_back(static_cast<uint32_t>(IndexOf(record)));
}

PendingRecord* CInFlight::NextToSend(PendingRecord::TimePoint now) {
  if (m_queToSend.empty() || m_vecSlots[m_queToSend.front()].due > now) {
    return nullptr;
  }
  PendingRecord* pRecord = &m_vecSlots[m_queToSend.front()];
  m_queToSend.pop_front();
  return pRecord;
}

std::optional<PendingRecord::TimePoint> CInFlight::NextDue() const {
  if (m_queToSend.empty()) {
    return std::nullopt;
  }
  return m_vecSlots[m_queToSend.front()].due;
}
