// What became of producers' messages, counted as they are answered: one relaxed addition a message.
//
// Threads: any. Nothing here takes a lock or memory, snapshots excepted.
#ifndef QMLOGCACHE_HOST_ROUTER_INTAKE_COUNTERS_H_
#define QMLOGCACHE_HOST_ROUTER_INTAKE_COUNTERS_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

#include "host/protocol/record_priority.h"

// Since the router was made; each only ever grows.
struct IntakeCounts {
  PriorityCounts aAccepted{};                             // records answered 0
  std::vector<std::pair<uint32_t, uint64_t>> vecRefused;  // status and how often, in the order of first appearance
  uint64_t u64RefusedOtherwise = 0;                       // with a status for which there was no place any more
};

class CIntakeCounters {
 public:
  // uPriority: as PriorityOfMessage gives it; what is accepted and no record is told of nowhere.
  void Count(size_t uPriority, uint32_t uStatus) {
    if (uStatus == 0) {
      m_aAccepted[uPriority].fetch_add(1, std::memory_order_relaxed);
    } else {
      CountRefused(uStatus);
    }
  }
  void CountRefused(uint32_t uStatus) {
    for (Refusal& refusal : m_aRefused) {
      uint32_t uHere = refusal.uStatus.load(std::memory_order_relaxed);
      if (uHere == 0 && refusal.uStatus.compare_exchange_strong(uHere, uStatus, std::memory_order_relaxed)) {
        uHere = uStatus;
      }
      if (uHere == uStatus) {
        refusal.u64Count.fetch_add(1, std::memory_order_relaxed);
        return;
      }
    }
    m_u64RefusedOtherwise.fetch_add(1, std::memory_order_relaxed);
  }
  IntakeCounts Snapshot() const {
    IntakeCounts counts;
    for (size_t i = 0; i < counts.aAccepted.size(); ++i) {
      counts.aAccepted[i] = m_aAccepted[i].load(std::memory_order_relaxed);
    }
    for (const Refusal& refusal : m_aRefused) {
      const uint64_t u64Count = refusal.u64Count.load(std::memory_order_relaxed);
      if (u64Count != 0) {
        counts.vecRefused.emplace_back(refusal.uStatus.load(std::memory_order_relaxed), u64Count);
      }
    }
    counts.u64RefusedOtherwise = m_u64RefusedOtherwise.load(std::memory_order_relaxed);
    return counts;
  }

 private:
  // More codes than the host and the component have between them for an answer.
  static constexpr size_t kStatuses = 32;

  struct Refusal {
    std::atomic<uint32_t> uStatus{0};  // 0: the place is free
    std::atomic<uint64_t> u64Count{0};
  };

  alignas(64) std::array<std::atomic<uint64_t>, kNotARecord + 1> m_aAccepted{};
  alignas(64) std::array<Refusal, kStatuses> m_aRefused{};
  std::atomic<uint64_t> m_u64RefusedOtherwise{0};
};

#endif  // QMLOGCACHE_HOST_ROUTER_INTAKE_COUNTERS_H_
