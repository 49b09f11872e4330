#include "tools/qmsend/follow/unsettled_lines.h"

#include <utility>

uint64_t CUnsettledLines::Add(LogPlace end) {
  m_queLines.push_back({std::move(end), false});
  return m_u64First + m_queLines.size() - 1;
}

void CUnsettledLines::Skip(LogPlace end) {
  if (m_queLines.empty()) {
    m_mark = std::move(end);
    m_bMoved = true;
  } else if (m_queLines.back().bSettled) {
    m_queLines.back().end = std::move(end);
  } else {
    m_queLines.push_back({std::move(end), true});
  }
}

void CUnsettledLines::Settle(uint64_t u64Number) {
  m_queLines[u64Number - m_u64First].bSettled = true;
  while (!m_queLines.empty() && m_queLines.front().bSettled) {
    m_mark = std::move(m_queLines.front().end);
    m_queLines.pop_front();
    ++m_u64First;
    ++m_uSettledSinceNote;
    m_bMoved = true;
  }
}

void CUnsettledLines::Noted() {
  m_uSettledSinceNote = 0;
  m_bMoved = false;
}
