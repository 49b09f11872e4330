// The records that were taken from the input and whose fate is not known yet.
#ifndef QMLOGCACHE_TOOLS_QMSEND_IN_FLIGHT_H_
#define QMLOGCACHE_TOOLS_QMSEND_IN_FLIGHT_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct PendingRecord {
  using TimePoint = std::chrono::steady_clock::time_point;
  enum class State { Free, OnWire, ToSend };

  State state = State::Free;
  uint32_t uGeneration = 0;  // tells an answer to an earlier sending from one to this
  std::string strPayload;
  size_t uSource = 0;
  uint64_t u64Number = 0;
  std::optional<TimePoint> giveUp;  // set by the first failure
  TimePoint due{};                  // ToSend: not before
  uint32_t uLastStatus = 0;         // of the last refusal, 0 when there was none
};

class CInFlight {
 public:
  // uSlots: how many records at most; uMaxBytes: of all payloads together, but one record is always taken.
  CInFlight(size_t uSlots, size_t uMaxBytes);

  bool HasRoom() const;
  bool Empty() const { return m_vecFree.size() == m_vecSlots.size(); }
  size_t Count() const { return m_vecSlots.size() - m_vecFree.size(); }
  size_t OnWire() const { return m_uOnWire; }

  // A slot in state ToSend; its payload string is to be filled, then Charge is called.
  PendingRecord& Take();
  void Charge(const PendingRecord& record) { m_uBytes += record.strPayload.size(); }
  // Gives the record a new request id.
  uint64_t MarkSent(PendingRecord& record);
  void MarkToSend(PendingRecord& record, PendingRecord::TimePoint due);
  // The record that waits for the answer to that request; null for any other id.
  PendingRecord* Find(uint64_t u64RequestId);
  void Release(PendingRecord& record);

  // The records to be sent, oldest first as they were marked; null when there is none that is due.
  PendingRecord* NextToSend(PendingRecord::TimePoint now);
  std::optional<PendingRecord::TimePoint> NextDue() const;

  template <typename Function>
  void ForEachUsed(Function fnVisit) {
    for (PendingRecord& record : m_vecSlots) {
      if (record.state != PendingRecord::State::Free) {
        fnVisit(record);
      }
    }
  }

 private:
  size_t IndexOf(const PendingRecord& record) const { return static_cast<size_t>(&record - m_vecSlots.data()); }

  const size_t m_uMaxBytes;
  std::vector<PendingRecord> m_vecSlots;
  std::vector<uint32_t> m_vecFree;
  std::deque<uint32_t> m_queToSend;  // in the order of marking
  size_t m_uBytes = 0;
  size_t m_uOnWire = 0;
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_IN_FLIGHT_H_
