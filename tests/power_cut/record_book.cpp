#include "tests/power_cut/record_book.h"

#include <algorithm>

void Apply(const Commit& commit, Rows& rows) {
  if (commit.bClears) {
    rows.clear();
  }
  for (const uint64_t u64DataId : commit.vecRemoved) {
    rows.erase(u64DataId);
  }
  for (const Row& row : commit.vecAdded) {
    rows[row.u64DataId] = row;
  }
}

void CRecordBook::StartFrom(const Rows& rows) {
  m_start = rows;
  m_vecCommits.clear();
  m_uAcknowledged = 0;
  m_uDurable = 0;
}

std::optional<size_t> CRecordBook::Find(const Rows& rows) const {
  Rows state = m_start;
  std::optional<size_t> found;
  for (size_t i = 0;; ++i) {
    if (state == rows) {
      found = i;
    }
    if (i == m_vecCommits.size()) {
      return found;
    }
    Apply(m_vecCommits[i], state);
  }
}

void CRecordBook::CutBack(size_t uCommits) {
  m_vecCommits.resize(uCommits);
  m_uAcknowledged = std::min(m_uAcknowledged, uCommits);
  m_uDurable = std::min(m_uDurable, uCommits);
}

Rows CRecordBook::StateAfter(size_t uCommits) const {
  Rows state = m_start;
  for (size_t i = 0; i < uCommits; ++i) {
    Apply(m_vecCommits[i], state);
  }
  return state;
}

size_t CRecordBook::CountLost(const Rows& rows) const {
  Rows lost = StateAfter(m_uAcknowledged);
  for (size_t i = m_uAcknowledged; i < m_vecCommits.size(); ++i) {
    Apply({m_vecCommits[i].bClears, m_vecCommits[i].vecRemoved, {}}, lost);
  }
  std::erase_if(lost, [&rows](const auto& entry) {
    const auto it = rows.find(entry.first);
    return it != rows.end() && it->second == entry.second;
  });
  return lost.size();
}
