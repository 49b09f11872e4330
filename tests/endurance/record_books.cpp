#include "record_books.h"

std::string Balance::Text() const {
  std::string strText = "accepted " + std::to_string(u64Accepted) + ", refused " + std::to_string(u64Refused) +
                        ", delivered " + std::to_string(u64Delivered) + ", rejected " + std::to_string(u64Rejected) +
                        ", refused by the router " + std::to_string(u64RefusedByRouter) + ", held " +
                        std::to_string(u64Held);
  for (const auto& [strReason, u64Count] : mapDropped) {
    strText += ", dropped (" + strReason + ") " + std::to_string(u64Count);
  }
  if (u64Unanswered != 0) {
    strText += ", kept without an answer " + std::to_string(u64Unanswered);
  }
  return strText + ", repeats " + std::to_string(u64Repeats) + ", lost " + std::to_string(vecLost.size()) +
         ", invented " + std::to_string(vecInvented.size());
}

void CRecordBooks::Told(const std::string& strContent, bool bAccepted) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  if (bAccepted) {
    m_setAccepted.insert(strContent);
  } else {
    ++m_u64Refused;
  }
}

void CRecordBooks::LeftUnanswered(const std::string& strContent) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_setUnanswered.insert(strContent);
}

void CRecordBooks::Ended(const std::string& strContent, Ending ending) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  if (!m_mapEnded.try_emplace(strContent, ending).second) {
    ++m_u64Repeats;
  }
}

void CRecordBooks::MayBeDropped(const std::string& strContent, const std::string& strReason) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_mapReason.try_emplace(strContent, strReason);
}

bool CRecordBooks::HasEnded(const std::string& strContent) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_mapEnded.contains(strContent);
}

uint64_t CRecordBooks::Accepted() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_setAccepted.size();
}

uint64_t CRecordBooks::EndedCount() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_mapEnded.size();
}

Balance CRecordBooks::Close(const std::set<std::string>& setHeld) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  Balance balance;
  balance.u64Accepted = m_setAccepted.size();
  balance.u64Refused = m_u64Refused;
  balance.u64Repeats = m_u64Repeats;
  for (const auto& [strContent, ending] : m_mapEnded) {
    switch (ending) {
      case Ending::Delivered:
        ++balance.u64Delivered;
        break;
      case Ending::Rejected:
        ++balance.u64Rejected;
        break;
      case Ending::RefusedByRouter:
        ++balance.u64RefusedByRouter;
        break;
    }
    if (m_setUnanswered.contains(strContent)) {
      ++balance.u64Unanswered;
    } else if (!m_setAccepted.contains(strContent)) {
      balance.vecInvented.push_back(strContent.substr(0, 40));
    }
  }
  for (const std::string& strContent : setHeld) {
    if (m_setUnanswered.contains(strContent)) {
      balance.u64Unanswered += m_mapEnded.contains(strContent) ? 0 : 1;
    } else if (!m_setAccepted.contains(strContent)) {
      balance.vecInvented.push_back(strContent.substr(0, 40));
    } else if (!m_mapEnded.contains(strContent)) {
      ++balance.u64Held;
    }
  }
  for (const std::string& strContent : m_setAccepted) {
    if (m_mapEnded.contains(strContent) || setHeld.contains(strContent)) {
      continue;
    }
    const auto itReason = m_mapReason.find(strContent);
    if (itReason == m_mapReason.end()) {
      balance.vecLost.push_back(strContent.substr(0, 40));
    } else {
      ++balance.mapDropped[itReason->second];
    }
  }
  return balance;
}
