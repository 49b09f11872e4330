#include "tests/model/store_model.h"

#include <cstdio>
#include <utility>

#include "platform/status_codes.h"

namespace {

constexpr int kMemoryOnly = 2;
constexpr int kWriteAtSave = 1;
constexpr int kPending = 1;
constexpr int kWritten = 2;
constexpr size_t kBatchRows = 500;
constexpr size_t kLoadUpTo = 10000;
constexpr uint32_t kCheckEvery = 60;
constexpr uint32_t kResendAfter = 14400;

size_t QueueOf(int iPriv) {
  return static_cast<size_t>(iPriv < 10 ? iPriv % 4 : (iPriv - 10) & 3);
}

RowToWrite RowOf(unsigned long long u64DataId, const Contents& contents) {
  return {u64DataId, {contents.iPriv, contents.iMsgType, 0, contents.strProduct, contents.strCombo, contents.strData}};
}

template <typename... Values>
std::string Text(const char* pszFormat, Values... values) {
  std::array<char, 1024> szText{};
  snprintf(szText.data(), szText.size(), pszFormat, values...);
  return szText.data();
}

}  // namespace

int CStoreModel::CheckCacheSize() {
  if (m_uNow > m_uLastCheck && m_uNow < m_uLastCheck + kCheckEvery) {
    return m_iCheckRet;
  }
  m_uLastCheck = m_uNow;
  m_iCheckRet = kStatusOk;
  if (Configured(kFreeSpace) <= 0) {
    m_iCheckRet = kStatusNoDiskSpace;
  } else if (Configured(kTotalSize) == 0) {
    m_iCheckRet = kStatusDirectoryFull;
  }
  return m_iCheckRet;
}

int CStoreModel::CheckSpace(const CFileModel& file) {
  using enum CFileModel::State;
  const bool bThere = file.GetState() != Missing;
  const bool bHasBytes = bThere && file.GetState() != Empty;
  if ((Configured(kFileSize) == 0 && bThere) || (Configured(kFileSize) == 1 && bHasBytes)) {
    return kStatusFileFull;
  }
  return CheckCacheSize();
}

int CStoreModel::Write(unsigned long long u64DataId, ModelRecord& record) {
  if (record.iSaveStatus != kPending) {
    return kStatusOk;
  }
  CFileModel& file = m_mapFiles[record.contents.strSender];
  const int iSpace = CheckSpace(file);
  if (iSpace != kStatusOk && Configured(kCover) == 0) {
    return iSpace;
  }
  const int iRet = file.Add(RowOf(u64DataId, record.contents), iSpace != kStatusOk, m_failure);
  if (iRet == kStatusOk) {
    record.iSaveStatus = kWritten;
  }
  return iRet;
}

bool CStoreModel::Queue(unsigned long long u64DataId, ModelRecord& record) {
  if (!record.bQueued) {
    if (m_failure == kQueueing) {
      return false;
    }
    m_aQueues[QueueOf(record.contents.iPriv)].push_back({u64DataId, record.u64Instance});
    record.bQueued = true;
  }
  return true;
}

void CStoreModel::MarkOldest() {
  for (auto& [u64DataId, record] : m_mapRecords) {
    if (!record.bMarked) {
      record.bMarked = true;
      return;
    }
  }
}

void CStoreModel::WarnOfWrite(const char* pszWho, int iRet, unsigned long long u64DataId, const ModelRecord& record) {
  const Contents& contents = record.contents;
  m_vecWarnings.push_back(
      Text("*qmlogcache %s Error iRet[%x] StartTime[%x] ReSendCount[%u] u64DataId[%llx] iPriv[%d] iMsgType[%d] "
           "iDataSaveStatus[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
           pszWho, static_cast<unsigned int>(iRet), record.uStartTime, record.uResends, u64DataId, contents.iPriv,
           contents.iMsgType, record.iSaveStatus, contents.strSender.c_str(), contents.strProduct.c_str(),
           contents.strCombo.c_str()));
}

int CStoreModel::Intake(unsigned long long u64DataId, const Contents& contents, int iSaveStatus, bool bForceSave) {
  if (m_mapRecords.size() > static_cast<size_t>(Configured(kCountLimit))) {
    if (Configured(kCover) == 0) {
      return kStatusCountLimit;
    }
    MarkOldest();
  }
  m_setFileObjects.insert(contents.strSender);
  const auto [it, bNew] = m_mapRecords.try_emplace(u64DataId);
  if (!bNew) {
    return kStatusOk;
  }
  ModelRecord& record = it->second;
  record.contents = contents;
  record.iSaveStatus = Configured(kFlow) == kMemoryOnly ? 0 : iSaveStatus;
  record.u64Instance = ++m_u64Instances;
  if (Configured(kFlow) != kWriteAtSave || bForceSave) {
    const int iRet = Write(u64DataId, record);
    if (iRet != kStatusOk) {
      WarnOfWrite("InsertExecData", iRet, u64DataId, record);
    }
  }
  if (!Queue(u64DataId, record)) {
    Delete(u64DataId);
    return kStatusNoResource;
  }
  return kStatusOk;
}

std::optional<unsigned long long> CStoreModel::Take(std::optional<Codes>& deleted) {
  for (size_t i = m_aQueues.size(); i-- > 0;) {
    while (!m_aQueues[i].empty()) {
      const Entry entry = m_aQueues[i].front();
      m_aQueues[i].pop_front();
      const auto it = m_mapRecords.find(entry.u64DataId);
      if (it == m_mapRecords.end() || it->second.u64Instance != entry.u64Instance) {
        continue;
      }
      it->second.bQueued = false;
      it->second.uStartTime = m_uNow;
      if (it->second.bMarked) {
        deleted = Delete(entry.u64DataId);
      }
      return entry.u64DataId;
    }
  }
  return std::nullopt;
}

Codes CStoreModel::Delete(unsigned long long u64DataId) {
  const auto it = m_mapRecords.find(u64DataId);
  if (it == m_mapRecords.end()) {
    return {kStatusUnknownDataId};
  }
  const ModelRecord record = std::move(it->second);
  m_mapRecords.erase(it);
  return record.iSaveStatus == kWritten ? m_mapFiles[record.contents.strSender].Delete(u64DataId, m_failure)
                                        : Codes{kStatusOk};
}

int CStoreModel::QueueAgain(unsigned long long u64DataId) {
  const auto it = m_mapRecords.find(u64DataId);
  return it == m_mapRecords.end() ? kStatusUnknownDataId : QueueAgain(it);
}

int CStoreModel::QueueAgain(RecordMap::iterator it) {
  auto& [u64DataId, record] = *it;
  const int iRet = Write(u64DataId, record);
  if (iRet != kStatusOk) {
    WarnOfWrite("ReInsertExecData", iRet, u64DataId, record);
  }
  ++record.uResends;
  record.uStartTime = 0;
  if (!Queue(u64DataId, record)) {
    Delete(u64DataId);
    return kStatusNoResource;
  }
  return kStatusOk;
}

void CStoreModel::Save() {
  std::map<std::string, std::vector<RowToWrite>> mapBatches;
  const auto flush = [this](const std::string& strSender, std::vector<RowToWrite>& vecRows) {
    if (m_mapFiles[strSender].AddBatch(vecRows, m_failure) == kStatusOk) {
      for (const RowToWrite& row : vecRows) {
        m_mapRecords.at(row.u64DataId).iSaveStatus = kWritten;
      }
    }
    vecRows.clear();
  };
  for (const auto& [u64DataId, record] : m_mapRecords) {
    if (record.iSaveStatus != kPending) {
      continue;
    }
    std::vector<RowToWrite>& vecRows = mapBatches[record.contents.strSender];
    vecRows.push_back(RowOf(u64DataId, record.contents));
    if (vecRows.size() == kBatchRows) {
      flush(record.contents.strSender, vecRows);
    }
  }
  for (auto& [strSender, vecRows] : mapBatches) {
    flush(strSender, vecRows);
  }
}

void CStoreModel::Load(const std::vector<std::string>& vecFiles) {
  if (m_mapRecords.size() > kLoadUpTo) {
    return;
  }
  const auto uLimit = static_cast<size_t>(Configured(kLocalCountLimit));
  std::vector<std::pair<std::string, RowToWrite>> vecLoaded;
  for (const std::string& strSender : vecFiles) {
    if (vecLoaded.size() >= uLimit) {
      break;
    }
    std::vector<RowToWrite> vecRows;
    if (m_mapFiles[strSender].Read(uLimit - vecLoaded.size(), m_failure, vecRows)) {
      for (const RowToWrite& row : vecRows) {
        vecLoaded.emplace_back(strSender, row);
      }
    }
  }
  for (const auto& [strSender, loaded] : vecLoaded) {
    const Row& row = loaded.row;
    const Contents contents{row.iPriv, row.iMsgType, strSender, row.strProduct, row.strCombo, row.strData};
    const int iRet = Intake(loaded.u64DataId, contents, kWritten, false);
    if (iRet != kStatusOk) {
      m_vecWarnings.push_back(
          Text("*qmlogcache CLogCacheData::LoadExecData Warn AddDataAction iRet[%x] u64DataId[%llx] iPriv[%d] "
               "iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s] strFileName[",
               static_cast<unsigned int>(iRet), loaded.u64DataId, row.iPriv, row.iMsgType, strSender.c_str(),
               row.strProduct.c_str(), row.strCombo.c_str()));
    }
  }
}

void CStoreModel::Sweep() {
  for (auto it = m_mapRecords.begin(); it != m_mapRecords.end();) {
    const auto itThis = it++;
    uint32_t& uStartTime = itThis->second.uStartTime;
    if (uStartTime == 0) {
      continue;
    }
    if (m_uNow < uStartTime) {
      uStartTime = m_uNow;
    } else if (m_uNow - uStartTime >= kResendAfter) {
      static_cast<void>(QueueAgain(itThis));
    }
  }
}

void CStoreModel::Restart() {
  m_mapRecords.clear();
  for (auto& queue : m_aQueues) {
    queue.clear();
  }
  m_setFileObjects.clear();
  m_uLastCheck = 0;
  m_iCheckRet = kStatusOk;
}
