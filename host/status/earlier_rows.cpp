#include "host/status/earlier_rows.h"

#include "host/status/cache_directory.h"
#include "host/status/cache_rows.h"

using Clock = std::chrono::steady_clock;

void CEarlierRows::Count(const std::string& strDirectory, std::chrono::milliseconds budget) {
  const Clock::time_point end = Clock::now() + budget;
  m_optAtStart.reset();
  m_optLeft = ListCacheFiles(strDirectory);
  if (!m_optLeft) {
    return;
  }
  const std::string strReal = ResolvedDirectory(strDirectory);
  uint64_t u64Rows = 0;
  for (const std::string& strFile : *m_optLeft) {
    if (Clock::now() >= end) {
      return;
    }
    std::optional<uint64_t> optRows = CountCacheRows(strReal + strFile);
    if (!optRows && HasRowsBefore(strReal + strFile, UINT64_MAX) == false) {
      optRows = 0;
    }
    if (!optRows) {
      return;
    }
    u64Rows += *optRows;
  }
  m_optAtStart = u64Rows;
}

void CEarlierRows::Look(const std::string& strDirectory, uint64_t u64FirstOfRun, std::chrono::milliseconds budget) {
  if (m_optAtStart) {
    return;
  }
  const Clock::time_point end = Clock::now() + budget;
  if (!m_optLeft) {
    m_optLeft = ListCacheFiles(strDirectory);
  }
  if (!m_optLeft) {
    return;
  }
  const std::string strReal = ResolvedDirectory(strDirectory);
  // One file that still holds some is answer enough.
  while (!m_optLeft->empty()) {
    if (Clock::now() >= end || HasRowsBefore(strReal + m_optLeft->back(), u64FirstOfRun) != false) {
      return;
    }
    m_optLeft->pop_back();
  }
  m_optAtStart = 0;
}
