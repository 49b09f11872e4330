// Filing, finding, queueing again and deleting single records, and the four-hour sweep.
#include <algorithm>
#include <ctime>
#include <new>

#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "store/log_cache_data.h"

namespace {
constexpr uint32_t kResendAfterSeconds = 4 * 3600;
}  // namespace

int CLogCacheData::AddDataAction(int bForceSave, unsigned long long u64DataId, int iPriv, int iMsgType,
                                 int iDataSaveStatus, const CPString& strPluginId, const CPString& strProduct,
                                 const CPString& strCombo, const CPString& strData) {
  ExecDataHold pExecData(new (std::nothrow) _LogExecData);
  if (pExecData != nullptr) {
    pExecData->u64DataId = u64DataId;
    pExecData->iPriv = iPriv;
    pExecData->iMsgType = iMsgType;
    pExecData->iDataSaveStatus = m_dwDataFlowFlag == kFlowMemoryOnly ? kSaveNever : iDataSaveStatus;
    pExecData->strProduct = strProduct;
    pExecData->strCombo = strCombo;
    pExecData->strData = strData;
  }
  const int bSave = m_dwDataFlowFlag == kFlowWriteAtSave && bForceSave == 0 ? 0 : 1;
  {
    // One lock from the limit to the map: every record comes this way.
    CCriticalSectionGuard guard(m_csExecData);
    const int iLimit = CheckExecDataLimitLocked();
    if (iLimit != kStatusOk) {
      if (m_dwDataCoverFlag == 0) {
        return iLimit;
      }
      DelFirLineFromExecDataLocked();
    }
    const auto* pSender = GetSenderLocked(strPluginId);
    if (pSender == nullptr || pExecData == nullptr) {
      return kStatusNoResource;
    }
    pExecData->strPluginId = pSender->first;
    pExecData->pLogCacheFile = pSender->second.get();
    if (const std::optional<int> iNotFiled = FileExecDataLocked(pExecData.get())) {
      return *iNotFiled;
    }
  }
  return SaveAndQueueExecData(pExecData.get(), bSave);
}

int CLogCacheData::InsertExecData(_LogExecData* pExecData, int bSave) {
  if (pExecData == nullptr) {
    return kStatusNoObject;
  }
  // Keeps the record alive to the end of filing, whatever a result for its id does in between.
  const ExecDataHold hold(pExecData);
  {
    CCriticalSectionGuard guard(m_csExecData);
    if (const std::optional<int> iNotFiled = FileExecDataLocked(pExecData)) {
      return *iNotFiled;
    }
  }
  return SaveAndQueueExecData(pExecData, bSave);
}

std::optional<int> CLogCacheData::FileExecDataLocked(_LogExecData* pExecData) {
  // The question and the filing under one lock: nothing may settle a record that a load brings back in between.
  const unsigned long long u64DataId = pExecData->u64DataId;
  const bool bNewest = m_mapLogExecData.empty() || m_mapLogExecData.rbegin()->first < u64DataId;
  if ((!bNewest && m_mapLogExecData.contains(u64DataId)) || m_setDeletedInLoad.contains(u64DataId)) {
    return kStatusOk;
  }
  const int iRet = AddExecDataMapLocked(pExecData);
  return iRet == kStatusOk ? std::nullopt : std::optional(iRet);
}

int CLogCacheData::SaveAndQueueExecData(_LogExecData* pExecData, int bSave) {
  if (bSave != 0) {
    const int iRet = AddCacheData(pExecData);
    if (iRet != kStatusOk) {
      LogPrint(g_hLog, kLogWarning,
               "*qmlogcache InsertExecData Error iRet[%x] StartTime[%x] ReSendCount[%u] u64DataId[%llx] iPriv[%d] "
               "iMsgType[%d] iDataSaveStatus[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
               static_cast<unsigned int>(iRet), pExecData->StartTime.Load(), pExecData->ReSendCount.Load(),
               pExecData->u64DataId, pExecData->iPriv, pExecData->iMsgType, pExecData->iDataSaveStatus.Load(),
               pExecData->strPluginId.c_str(), pExecData->strProduct.c_str(), pExecData->strCombo.c_str());
    }
  }
  if (!QueueExecData(pExecData)) {
    static_cast<void>(DeleteDataAction(pExecData->u64DataId));  // the refusal is what the caller must know
    return kStatusNoResource;
  }
  return kStatusOk;
}

int CLogCacheData::DeleteDataAction(unsigned long long u64DataId) {
  return DeleteExecDataMap(u64DataId);
}

int CLogCacheData::ReAddDataAction(unsigned long long u64DataId) {
  return ReInsertExecData(u64DataId);
}

int CLogCacheData::ReInsertExecData(unsigned long long u64DataId) {
  CCriticalSectionGuard guard(m_csExecData);
  const auto it = m_mapLogExecData.find(u64DataId);
  return it == m_mapLogExecData.end() ? kStatusUnknownDataId : ReInsertExecDataLocked(it->second);
}

int CLogCacheData::ReInsertExecDataLocked(_LogExecData* pExecData) {
  if (pExecData == nullptr) {
    return kStatusNoObject;
  }
  const int iRet = AddCacheDataLocked(pExecData);
  if (iRet != kStatusOk) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache ReInsertExecData Error iRet[%x] StartTime[%x] ReSendCount[%u] u64DataId[%llx] iPriv[%d] "
             "iMsgType[%d] iDataSaveStatus[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
             static_cast<unsigned int>(iRet), pExecData->StartTime.Load(), pExecData->ReSendCount.Load(),
             pExecData->u64DataId, pExecData->iPriv, pExecData->iMsgType, pExecData->iDataSaveStatus.Load(),
             pExecData->strPluginId.c_str(), pExecData->strProduct.c_str(), pExecData->strCombo.c_str());
  }
  pExecData->ReSendCount.Add(1);
  pExecData->StartTime = 0;
  if (!QueueExecData(pExecData)) {
    static_cast<void>(DeleteExecDataMapLocked(pExecData->u64DataId));  // the refusal is what the caller must know
    return kStatusNoResource;
  }
  return kStatusOk;
}

void CLogCacheData::RepeatExecDataMap() {
  CCriticalSectionGuard guard(m_csExecData);
  const auto dwNow = static_cast<uint32_t>(time(nullptr));
  for (auto it = m_mapLogExecData.begin(); it != m_mapLogExecData.end();) {
    const unsigned long long u64DataId = it->first;
    _LogExecData* pExecData = it->second;
    const uint32_t dwStartTime = pExecData->StartTime;
    if (dwStartTime != 0 && dwNow < dwStartTime) {
      pExecData->StartTime = dwNow;
    } else if (dwStartTime != 0 && dwNow - dwStartTime >= kResendAfterSeconds &&
               ReInsertExecDataLocked(pExecData) != kStatusOk) {
      it = m_mapLogExecData.upper_bound(u64DataId);  // it has logged, and erased the record: the sweep goes on
      continue;
    }
    ++it;
  }
}

int CLogCacheData::GetExecDataFromMap(unsigned long long u64DataId, int bCopyData, _LogExecData& out) {
  CCriticalSectionGuard guard(m_csExecData);
  const auto it = m_mapLogExecData.find(u64DataId);
  if (it == m_mapLogExecData.end()) {
    return kStatusUnknownDataId;
  }
  const _LogExecData& data = *it->second;
  out.StartTime = data.StartTime;
  out.ReSendCount = data.ReSendCount;
  out.iReserved = data.iReserved;
  out.u64Reserved = data.u64Reserved;
  out.u64DataId = data.u64DataId;
  out.iPriv = data.iPriv;
  out.iMsgType = data.iMsgType;
  out.iDataSaveStatus = data.iDataSaveStatus;
  out.strPluginId = data.strPluginId;
  out.strProduct = data.strProduct;
  out.strCombo = data.strCombo;
  if (bCopyData != 0) {
    out.strData = data.strData;
  }
  return kStatusOk;
}

ExecDataHold CLogCacheData::FindExecData(unsigned long long u64DataId, ChangingFields& fields) {
  CCriticalSectionGuard guard(m_csExecData);
  const auto it = m_mapLogExecData.find(u64DataId);
  if (it == m_mapLogExecData.end()) {
    return nullptr;
  }
  _LogExecData& data = *it->second;
  fields = {data.StartTime, data.ReSendCount, data.iDataSaveStatus};
  data.uRefs.fetch_add(1, std::memory_order_relaxed);
  return ExecDataHold(&data);
}

bool CLogCacheData::IsDataIdExist(unsigned long long u64DataId) {
  CCriticalSectionGuard guard(m_csExecData);
  return m_mapLogExecData.contains(u64DataId);
}

int CLogCacheData::AddExecDataMap(_LogExecData* pExecData) {
  if (pExecData == nullptr) {
    return kStatusNoObject;
  }
  CCriticalSectionGuard guard(m_csExecData);
  return AddExecDataMapLocked(pExecData);
}

int CLogCacheData::AddExecDataMapLocked(_LogExecData* pExecData) {
  ExecDataHold replaced;
  try {
    // Ids mostly grow, so the end is the place to look first.
    const auto it = m_mapLogExecData.try_emplace(m_mapLogExecData.end(), pExecData->u64DataId, nullptr);
    replaced.reset(it->second);
    it->second = pExecData;
    // Ids come mostly in order, but a load brings old ones back.
    m_u64FirstUnmarked = std::min(m_u64FirstUnmarked, pExecData->u64DataId);
  } catch (const std::bad_alloc&) {
    return kStatusNoResource;
  }
  pExecData->uRefs.fetch_add(1, std::memory_order_relaxed);
  return kStatusOk;
}

int CLogCacheData::DeleteExecDataMap(unsigned long long u64DataId) {
  CCriticalSectionGuard guard(m_csExecData);
  return DeleteExecDataMapLocked(u64DataId);
}

int CLogCacheData::DeleteExecDataMapLocked(unsigned long long u64DataId) {
  const auto it = m_mapLogExecData.find(u64DataId);
  if (it == m_mapLogExecData.end()) {
    return kStatusUnknownDataId;
  }
  const ExecDataHold erased(it->second);
  m_mapLogExecData.erase(it);
  erased->marks.Set(_LogExecData::CMarks::kErased);
  RememberDeletedLocked(u64DataId);
  // The record leaves memory even when its row could not be deleted.
  return erased->iDataSaveStatus == kSaveDone ? DeleteCacheData(*erased) : kStatusOk;
}

void CLogCacheData::RememberDeletedLocked(unsigned long long u64DataId) {
  if (m_uLoads == 0) {
    return;
  }
  try {
    m_setDeletedInLoad.insert(u64DataId);
  } catch (const std::bad_alloc&) {
    // The load may then file the record once more: sent twice is better than not at all.
  }
}

void CLogCacheData::CleanExecDataMap() {
  CCriticalSectionGuard guard(m_csExecData);
  for (const auto& [u64DataId, pExecData] : m_mapLogExecData) {
    const ExecDataHold erased(pExecData);
    erased->marks.Set(_LogExecData::CMarks::kErased);
  }
  m_mapLogExecData.clear();
}
