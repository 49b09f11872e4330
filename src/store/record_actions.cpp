// Filing, finding, queueing again and deleting single records, and the four-hour sweep.
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
  const int iLimit = CheckExecDataLimit();
  if (iLimit != kStatusOk) {
    if (m_dwDataCoverFlag == 0) {
      return iLimit;
    }
    DelFirLineFromExecData();
  }
  CLogCacheFile* pFile = GetLogCacheFile(strPluginId);
  if (pFile == nullptr) {
    return kStatusNoResource;
  }
  ExecDataHold pExecData(new (std::nothrow) _LogExecData);
  if (pExecData == nullptr) {
    return kStatusNoResource;
  }
  pExecData->u64DataId = u64DataId;
  pExecData->iPriv = iPriv;
  pExecData->iMsgType = iMsgType;
  pExecData->iDataSaveStatus = iDataSaveStatus;
  pExecData->strPluginId = strPluginId;
  pExecData->strProduct = strProduct;
  pExecData->strCombo = strCombo;
  pExecData->strData = strData;
  pExecData->pLogCacheFile = pFile;

  int bSave = 1;
  if (m_dwDataFlowFlag == kFlowMemoryOnly) {
    pExecData->iDataSaveStatus = kSaveNever;
  } else if (m_dwDataFlowFlag == kFlowWriteAtSave) {
    bSave = bForceSave != 0 ? 1 : 0;
  }
  return InsertExecData(pExecData.release(), bSave);
}

int CLogCacheData::InsertExecData(_LogExecData* pExecData, int bSave) {
  if (pExecData == nullptr) {
    return kStatusNoObject;
  }
  // Keeps the record alive to the end of filing, whatever a result for its id does in between.
  const ExecDataHold hold(pExecData);
  {
    // One lock for the question and the filing: nothing may settle a record that a load brings back in between.
    CCriticalSectionGuard guard(m_csExecData);
    if (m_mapLogExecData.contains(pExecData->u64DataId) || m_setDeletedInLoad.contains(pExecData->u64DataId)) {
      return kStatusOk;
    }
    const int iMapped = AddExecDataMapLocked(pExecData);
    if (iMapped != kStatusOk) {
      return iMapped;
    }
  }
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
    _LogExecData* pExecData = it->second;
    ++it;  // first: a failed re-queue erases the record
    const uint32_t dwStartTime = pExecData->StartTime;
    if (dwStartTime == 0) {
      continue;
    }
    if (dwNow < dwStartTime) {
      pExecData->StartTime = dwNow;
    } else if (dwNow - dwStartTime >= kResendAfterSeconds) {
      static_cast<void>(ReInsertExecDataLocked(pExecData));  // it has logged; the sweep goes on
    }
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
  erased->bErased.store(true, std::memory_order_release);
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
    erased->bErased.store(true, std::memory_order_release);
  }
  m_mapLogExecData.clear();
}
