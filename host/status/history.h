// What the figures were over the last ten minutes, every two seconds, and over the last day, every minute.
//
// Threads: one at a time. Memory is bounded by the two rows of samples.
#ifndef QMLOGCACHE_HOST_STATUS_HISTORY_H_
#define QMLOGCACHE_HOST_STATUS_HISTORY_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/protocol/record_priority.h"

inline constexpr std::chrono::seconds kFineStep{2};
inline constexpr std::chrono::seconds kFineSpan{600};
inline constexpr std::chrono::seconds kCoarseStep{60};
inline constexpr std::chrono::seconds kCoarseSpan{24 * 3600};

using StatusTime = std::chrono::steady_clock::time_point;

// Counters are since the host's start, the others at that moment.
struct HistorySample {
  StatusTime when{};
  PriorityCounts aAccepted{};
  uint64_t u64Delivered = 0;
  std::optional<PriorityCounts> optHeld;  // of this run
  bool bLinkUp = false;                   // of a coarse sample: in all fine ones since the coarse one before
  std::optional<uint64_t> optCacheBytes;
  std::vector<std::pair<std::string, uint64_t>> vecFiles;  // the largest cache files: sender, bytes
};

struct RecordRates {
  double dAccepted = 0;  // a second
  double dDelivered = 0;
  std::chrono::seconds span{60};  // that they are of
};

class CHistory {
 public:
  // Samples come in the order of time, about kFineStep apart.
  void Add(HistorySample sample);

  const std::deque<HistorySample>& Fine() const { return m_dequeFine; }
  const std::deque<HistorySample>& Coarse() const { return m_dequeCoarse; }

  // Between the newest sample and the oldest one of the last span; nothing while there are not two of them.
  std::optional<RecordRates> Rates(std::chrono::seconds span) const;
  // The first sample at which more than so many records of a priority had been accepted.
  std::optional<StatusTime> WhenAccepted(size_t uPriority, uint64_t u64MoreThan) const;

 private:
  std::deque<HistorySample> m_dequeFine;
  std::deque<HistorySample> m_dequeCoarse;
  bool m_bUpSinceCoarse = true;
};

#endif  // QMLOGCACHE_HOST_STATUS_HISTORY_H_
