#include "host/status/history.h"

#include <algorithm>
#include <numeric>

namespace {

uint64_t Sum(const PriorityCounts& aCounts) {
  return std::accumulate(aCounts.begin(), aCounts.end(), uint64_t{0});
}

void Push(std::deque<HistorySample>& dequeSamples, HistorySample sample, std::chrono::seconds span) {
  dequeSamples.push_back(std::move(sample));
  while (dequeSamples.back().when - dequeSamples.front().when > span) {
    dequeSamples.pop_front();
  }
}

}  // namespace

void CHistory::Add(HistorySample sample) {
  m_bUpSinceCoarse = m_bUpSinceCoarse && sample.bLinkUp;
  if (m_dequeCoarse.empty() || sample.when - m_dequeCoarse.back().when >= kCoarseStep) {
    HistorySample coarse = sample;
    coarse.bLinkUp = std::exchange(m_bUpSinceCoarse, true);
    Push(m_dequeCoarse, std::move(coarse), kCoarseSpan);
  }
  Push(m_dequeFine, std::move(sample), kFineSpan);
}

std::optional<RecordRates> CHistory::Rates(std::chrono::seconds span) const {
  if (m_dequeFine.empty()) {
    return std::nullopt;
  }
  const HistorySample& last = m_dequeFine.back();
  const auto itFirst = std::find_if(m_dequeFine.begin(), m_dequeFine.end(),
                                    [&](const HistorySample& sample) { return last.when - sample.when <= span; });
  const double dSeconds = std::chrono::duration<double>(last.when - itFirst->when).count();
  if (dSeconds <= 0) {
    return std::nullopt;
  }
  return RecordRates{static_cast<double>(Sum(last.aAccepted) - Sum(itFirst->aAccepted)) / dSeconds,
                     static_cast<double>(last.u64Delivered - itFirst->u64Delivered) / dSeconds,
                     std::chrono::round<std::chrono::seconds>(last.when - itFirst->when)};
}

std::optional<StatusTime> CHistory::WhenAccepted(size_t uPriority, uint64_t u64MoreThan) const {
  std::optional<StatusTime> optWhen;
  for (const std::deque<HistorySample>* pSamples : {&m_dequeCoarse, &m_dequeFine}) {
    const auto it = std::partition_point(pSamples->begin(), pSamples->end(), [&](const HistorySample& sample) {
      return sample.aAccepted[uPriority] <= u64MoreThan;
    });
    if (it != pSamples->end() && (!optWhen || it->when < *optWhen)) {
      optWhen = it->when;
    }
  }
  return optWhen;
}
