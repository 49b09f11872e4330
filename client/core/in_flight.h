// The records that were handed in and whose fate is not known yet.
#ifndef QMLOGCACHE_CLIENT_CORE_IN_FLIGHT_H_
#define QMLOGCACHE_CLIENT_CORE_IN_FLIGHT_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugin/compctx/guid.h"

struct PendingRecord {
  using TimePoint = std::chrono::steady_clock::time_point;
  enum class State { Free, OnWire, ToSend };

  State state = State::Free;
  uint32_t uSlot = 0;
  uint32_t uGeneration = 0;    // tells an answer to an earlier sending from one to this
  uint32_t uType = 0;          // of the message
  std::optional<GUID> sender;  // none: the settings'
  std::string strPayload;
  // What the one who handed it in knows it by.
  size_t uSource = 0;
  uint64_t u64Number = 0;
  uint64_t u64Order = 0;            // in which records were handed in
  bool bSent = false;               // once at least
  bool bMayBeTaken = false;         // after a sending whose outcome is not known
  std::optional<TimePoint> giveUp;  // set by the first failure
  TimePoint due{};                  // ToSend: not before
  uint32_t uLastStatus = 0;         // of the last refusal, 0 when there was none
  PendingRecord* pNext = nullptr;   // behind this one in its queue
};

// Records in a row, linked through themselves, so that nothing here needs memory.
class CRecordQueue {
 public:
  bool Empty() const noexcept { return m_pFirst == nullptr; }
  PendingRecord* First() const noexcept { return m_pFirst; }
  void Append(PendingRecord& record) noexcept;
  void RemoveFirst() noexcept { m_pFirst = m_pFirst->pNext; }
  void Clear() noexcept { m_pFirst = nullptr; }

 private:
  PendingRecord* m_pFirst = nullptr;
  PendingRecord* m_pLast = nullptr;  // of any meaning only while there is a first
};

// Take alone may throw std::bad_alloc, and has changed nothing then.
class CInFlight {
 public:
  // uMaxRecords: how many records at most; uMaxBytes: of all payloads together, but one record is always taken.
  CInFlight(size_t uMaxRecords, size_t uMaxBytes) : m_uMaxRecords(uMaxRecords), m_uMaxBytes(uMaxBytes) {}

  // What is there stays, however many.
  void LimitRecords(size_t uMaxRecords) { m_uMaxRecords = uMaxRecords; }
  bool HasRoom() const { return Count() < m_uMaxRecords && (m_uBytes < m_uMaxBytes || Empty()); }
  bool Empty() const { return Count() == 0; }
  size_t Count() const { return m_queSlots.size() - m_vecFree.size(); }
  size_t OnWire() const { return m_uOnWire; }

  // A record in state ToSend, whose address stays; its payload string is to be filled, then Charge is called.
  PendingRecord& Take();
  void Charge(const PendingRecord& record) { m_uBytes += record.strPayload.size(); }
  // Gives the record a new request id.
  uint64_t MarkSent(PendingRecord& record) noexcept;
  // Queues the record: to be sent as soon as may be, or again and not before that time. Such times come in their order.
  void MarkToSend(PendingRecord& record) noexcept;
  void MarkToSendAgain(PendingRecord& record, PendingRecord::TimePoint due) noexcept;
  // The record that waits for the answer to that request; null for any other id.
  PendingRecord* Find(uint64_t u64RequestId);
  // Not one that is queued to be sent, unless the queue is forgotten.
  void Release(PendingRecord& record) noexcept;
  void ForgetQueue() noexcept;

  // Those without a time go first, each as they were marked; null when there is none that is due. The record stays
  // queued until RemoveNext, which is told it.
  PendingRecord* NextToSend(PendingRecord::TimePoint now) const noexcept;
  void RemoveNext(const PendingRecord* pRecord) noexcept;
  std::optional<PendingRecord::TimePoint> NextDue() const noexcept;
  // No record waits that may be sent at once.
  bool NothingWaits() const noexcept { return m_queToSend.Empty(); }

  // The records, or those on the wire, in the order in which they were handed in. Valid until the next call of this or
  // of Take.
  const std::vector<PendingRecord*>& InOrder(bool bOnlyOnWire) noexcept;

 private:
  void TakeOffWire(PendingRecord& record) noexcept;

  size_t m_uMaxRecords;
  const size_t m_uMaxBytes;
  std::deque<PendingRecord> m_queSlots;  // as many as were ever needed at once
  std::vector<uint32_t> m_vecFree;
  std::vector<PendingRecord*> m_vecInOrder;  // has room for every slot
  CRecordQueue m_queToSend;
  CRecordQueue m_queToSendAgain;  // each with its time
  size_t m_uBytes = 0;
  size_t m_uOnWire = 0;
};

#endif  // QMLOGCACHE_CLIENT_CORE_IN_FLIGHT_H_
