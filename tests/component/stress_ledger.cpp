#include "stress_ledger.h"

#include "hang_guard.h"
#include "payloads.h"

namespace {

constexpr uint32_t kUnknownDataId = 0xA0010042;
constexpr size_t kMostFaultsKept = 20;

bool IsRetryable(uint32_t uResult) {
  return uResult == 0xE0010019 || uResult == 0xB0010025 || uResult == 0xB0010026;
}

}  // namespace

void CStressLedger::BeginLife() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_totals = {};
  m_setAccepted.clear();
  m_mapIdByContent.clear();
  for (const auto& [u64DataId, record] : m_mapRecords) {
    m_setEarlierIds.insert(u64DataId);
  }
  m_mapRecords.clear();
  m_vecStatistics.clear();
}

void CStressLedger::ContinueInNextLife() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  for (auto& [u64DataId, record] : m_mapRecords) {
    record.bSettledBefore = record.iSettled > 0;
  }
  m_vecStatistics.clear();
}

void CStressLedger::Fault(const std::string& strWhat) {
  if (m_vecFaults.size() < kMostFaultsKept) {
    m_vecFaults.push_back(strWhat);
  }
}

void CStressLedger::ProducerAnswered(const std::string& strContent, bool bAccepted) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  if (bAccepted) {
    ++m_totals.u64Accepted;
    m_setAccepted.insert(strContent);
  } else {
    ++m_totals.u64Refused;
  }
}

void CStressLedger::MalformedAnswered() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  ++m_totals.u64Malformed;
}

void CStressLedger::SendSeen(uint64_t u64DataId, std::string_view svText, bool bAccepted) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  ++(bAccepted ? m_totals.u64Sends : m_totals.u64SendsRefused);
  if (m_setEarlierIds.contains(u64DataId)) {
    Fault("a record of an earlier life is sent: " + ToHex(u64DataId));
  }
  if (!svText.starts_with("<version=1><dataid=" + ToHex(u64DataId) + ">")) {
    Fault("the text is another record's: " + std::string(svText.substr(0, 60)));
  }
  const auto [it, bNew] = m_mapRecords.try_emplace(u64DataId);
  Record& record = it->second;
  if (record.bSettledBefore) {
    Fault("a record that an earlier life settled is sent again: " + ToHex(u64DataId));
  }
  if (!bNew) {
    if (record.strText != svText) {
      Fault("the text changed between two sends of " + ToHex(u64DataId));
    }
    return;
  }
  ++m_totals.u64SentIds;
  record.strText = svText;
  record.strContent = ContentOf(svText);
  if (!m_mapIdByContent.try_emplace(record.strContent, u64DataId).second) {
    Fault("one record is sent under two ids: " + record.strContent.substr(0, 40));
  }
}

void CStressLedger::ResultAnswered(uint64_t u64DataId, uint32_t uResult, uint32_t uAnswer) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  if (uAnswer != 0 && uAnswer != kUnknownDataId) {
    Fault("a result is answered " + ToHex(uAnswer));
  }
  const auto it = m_mapRecords.find(u64DataId);
  if (it == m_mapRecords.end()) {
    if (uAnswer == 0) {
      Fault("a result for an id that was never sent in this life is taken: " + ToHex(u64DataId));
    }
    return;
  }
  if (uAnswer != 0 || IsRetryable(uResult)) {
    return;
  }
  ++(uResult == 0 ? m_totals.u64DeliveredTold : m_totals.u64RejectedTold);
  if (++it->second.iTold > 1) {
    Fault("two results settle one record: " + ToHex(u64DataId));
  }
}

void CStressLedger::Settle(const std::string& strLine, uint64_t& u64Counter) {
  ++u64Counter;
  const uint64_t u64DataId = std::stoull("0" + LogField(strLine, "u64DataId"), nullptr, 16);
  const auto it = m_mapRecords.find(u64DataId);
  if (it == m_mapRecords.end()) {
    Fault("a record is settled that was never sent: " + strLine);
  } else if (++it->second.iSettled > 1) {
    Fault("a record is settled twice: " + strLine);
  }
}

void CStressLedger::LineSeen(const LogLine& line) {
  if (line.strChannel != kMainChannel) {
    return;
  }
  const std::string& strText = line.strText;
  const std::lock_guard<std::mutex> guard(m_mutex);
  if (strText.starts_with("qmlogcache CLogCacheMgr::PrintfStat ")) {
    m_vecStatistics.push_back(strText);
    m_changed.notify_all();
  } else if (strText.starts_with("qmlogcache step3 OK ResultExecData DeleteDataAction OK ")) {
    Settle(strText, m_totals.u64Delivered);
  } else if (strText.starts_with("*qmlogcache step3 Error ResultExecData DeleteDataAction OK ")) {
    Settle(strText, m_totals.u64Rejected);
  } else if (strText.starts_with("*qmlogcache step2 Error RunExecData AsynSendEx iRet[0] ")) {
    Settle(strText, m_totals.u64Dropped);
  } else if (strText.starts_with("*qmlogcache step3 OK Error ResultExecData OK DeleteDataAction Error ") ||
             strText.starts_with("*qmlogcache step3 Error ResultExecData DeleteDataAction Error ") ||
             strText.starts_with("*qmlogcache step2 Error RunExecData AsynSendEx DeleteDataAction Error ")) {
    ++m_totals.u64Raced;
  } else if (strText.starts_with("*qmlogcache InsertExecData Error") ||
             strText.starts_with("*qmlogcache ReInsertExecData Error") ||
             strText.starts_with("*qmlogcache CLogCacheData::") || strText.starts_with("*qmlogcache CLogCacheFile::") ||
             strText.starts_with("*qmlogcache CLogCacheDb::") || strText.starts_with("*qmlogcache CLogCacheMon::") ||
             strText.starts_with("**") || strText.find("need kill") != std::string::npos) {
    Fault(strText);
  }
}

LedgerTotals CStressLedger::Totals() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_totals;
}

size_t CStressLedger::StatisticsCount() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_vecStatistics.size();
}

std::string CStressLedger::WaitForStatistics(size_t uCount) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_changed.wait_for(lock, kHangGuard, [&] { return m_vecStatistics.size() >= uCount; })) {
    return {};
  }
  return m_vecStatistics[uCount - 1];
}

std::set<uint64_t> CStressLedger::UnsettledIds() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  std::set<uint64_t> setIds;
  for (const auto& [u64DataId, record] : m_mapRecords) {
    if (record.iSettled == 0) {
      setIds.insert(u64DataId);
    }
  }
  return setIds;
}

std::multiset<std::string> CStressLedger::UnsettledContents() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  std::multiset<std::string> setContents(m_setAccepted.begin(), m_setAccepted.end());
  for (const auto& [u64DataId, record] : m_mapRecords) {
    if (record.iSettled > 0) {
      setContents.erase(record.strContent);
    }
  }
  return setContents;
}

std::vector<std::string> CStressLedger::Faults() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  for (const auto& [u64DataId, record] : m_mapRecords) {
    if (!m_setAccepted.contains(record.strContent)) {
      Fault("a record is sent that no producer was told to be accepted: " + record.strContent.substr(0, 40));
    }
    if (record.iTold > record.iSettled) {
      Fault("a result was answered \"success\" and settled nothing: " + ToHex(u64DataId));
    }
  }
  return m_vecFaults;
}
