// The store's side of persistence: configuration, file objects, single writes and deletes, and the load. The save in
// batches stands in save.cpp.
#include <list>
#include <new>

#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "store/log_cache_data.h"
#include "store/write_claim.h"

namespace {
constexpr size_t kLoadUpToRecords = 10000;
}  // namespace

bool CLogCacheData::InitCacheData() {
  uint32_t dwDataFlowFlag = 0;
  uint32_t dwDataCountLimit = 0;
  uint32_t dwLocalDataCountLimit = 0;
  uint32_t dwDataCoverFlag = 0;
  bool bLoaded = false;
  try {
    bLoaded = m_LogCacheMon.InitLogCacheMon(dwDataFlowFlag, dwDataCountLimit, dwLocalDataCountLimit, dwDataCoverFlag,
                                            m_strLogCachePath);
  } catch (const std::bad_alloc&) {
    // Told below.
  }
  if (!bLoaded) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCacheData::InitCacheData Error InitLogCacheMon");
    return false;
  }
  m_dwDataFlowFlag = dwDataFlowFlag;
  m_dwDataCountLimit = dwDataCountLimit;
  m_dwLocalDataCountLimit = dwLocalDataCountLimit;
  m_dwDataCoverFlag = dwDataCoverFlag;
  return true;
}

CLogCacheFile* CLogCacheData::GetLogCacheFile(const CPString& strPluginId) {
  CCriticalSectionGuard guard(m_csExecData);
  const auto* pSender = GetSenderLocked(strPluginId);
  return pSender == nullptr ? nullptr : pSender->second.get();
}

const CLogCacheData::LogCacheFileMap::value_type* CLogCacheData::GetSenderLocked(const CPString& strPluginId) {
  const auto it = m_mapLogCacheFile.find(strPluginId);
  if (it != m_mapLogCacheFile.end()) {
    return &*it;
  }
  try {
    std::unique_ptr<CLogCacheFile> pFile(new (std::nothrow) CLogCacheFile);
    if (pFile == nullptr) {
      return nullptr;
    }
    pFile->InitFile(m_dwLocalDataCountLimit, m_strLogCachePath, strPluginId);
    return &*m_mapLogCacheFile.emplace(strPluginId, std::move(pFile)).first;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int CLogCacheData::WriteCacheData(const _LogExecData& data) {
  try {
    int iRet = m_LogCacheMon.CheckFileSize(data.pLogCacheFile->GetLogCacheFile());
    if (iRet == kStatusOk) {
      iRet = m_LogCacheMon.CheckCacheSize();
    }
    if (iRet != kStatusOk && m_dwDataCoverFlag == 0) {
      return iRet;
    }
    const int bCover = iRet != kStatusOk ? 1 : 0;
    return data.pLogCacheFile->AddCacheData(data.u64DataId, data.iPriv, data.iMsgType, data.strProduct, data.strCombo,
                                            data.strData, bCover);
  } catch (const std::bad_alloc&) {
    return kStatusNoResource;
  }
}

int CLogCacheData::DeleteCacheData(const _LogExecData& data) {
  if (data.pLogCacheFile == nullptr) {
    return kStatusOk;
  }
  try {
    return data.pLogCacheFile->DeleteCacheData(data.u64DataId);
  } catch (const std::bad_alloc&) {
    return kStatusNoResource;
  }
}

int CLogCacheData::AddCacheData(_LogExecData* pExecData) {
  if (pExecData == nullptr) {
    return kStatusNoObject;
  }
  for (;;) {
    if (pExecData->iDataSaveStatus != kSavePending) {
      return kStatusOk;
    }
    if (pExecData->pLogCacheFile == nullptr) {
      return kStatusNoObject;
    }
    const CWriteClaim claim(*pExecData);
    if (!claim.IsHeld()) {
      // A save or a re-queue is writing it, and holds the lock until it has.
      CCriticalSectionGuard guard(m_csExecData);
      continue;
    }
    if (pExecData->iDataSaveStatus != kSavePending) {
      return kStatusOk;
    }
    const int iRet = WriteCacheData(*pExecData);
    if (iRet != kStatusOk) {
      return iRet;
    }
    CCriticalSectionGuard guard(m_csExecData);
    pExecData->iDataSaveStatus = kSaveDone;
    if (pExecData->marks.Has(_LogExecData::CMarks::kErased)) {
      // Settled while its row was being written; the row must not outlive it, nor a record that a load makes or has
      // made of it. A row that stays all the same is sent once more after the next load.
      static_cast<void>(DeleteCacheData(*pExecData));
      RememberDeletedLocked(pExecData->u64DataId);
      static_cast<void>(DeleteExecDataMapLocked(pExecData->u64DataId));
    }
    return kStatusOk;
  }
}

int CLogCacheData::AddCacheDataLocked(_LogExecData* pExecData) {
  if (pExecData->iDataSaveStatus != kSavePending) {
    return kStatusOk;
  }
  if (pExecData->pLogCacheFile == nullptr) {
    return kStatusNoObject;
  }
  const CWriteClaim claim(*pExecData);
  if (!claim.IsHeld()) {
    return kStatusOk;  // its own intake is writing it at this moment
  }
  const int iRet = WriteCacheData(*pExecData);
  if (iRet == kStatusOk) {
    pExecData->iDataSaveStatus = kSaveDone;
  }
  return iRet;
}

int CLogCacheData::LoadExecData() {
  size_t uRecords = 0;
  {
    CCriticalSectionGuard guard(m_csExecData);
    uRecords = m_mapLogExecData.size();
  }
  if (uRecords > kLoadUpToRecords) {
    LogPrint(g_hLog, kLogNormal, "qmlogcache CLogCacheData::LoadExecData m_mapLogExecData size[%u]",
             static_cast<unsigned int>(uRecords));
    return 1;
  }
  const CLoad load(*this);
  std::list<_CacheExecData> cacheDataList;
  CLogCacheFile scanner;
  scanner.InitFile(m_dwLocalDataCountLimit, m_strLogCachePath, CPString());
  if (!scanner.GetCacheData(cacheDataList)) {
    LogPrintStr(g_hLog, kLogWarning, "*qmlogcache CLogCacheData::LoadExecData Warn GetCacheData");
    return 0;
  }
  LogPrint(g_hLog, kLogNormal, "qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[%u]",
           static_cast<unsigned int>(cacheDataList.size()));
  FileCacheData(cacheDataList);
  LogPrint(g_hLog, kLogNormal,
           "qmlogcache CLogCacheData::LoadExecData LowQueueData[%lu] NormalQueueData[%lu] HighQueueData[%lu] "
           "RealQueueData[%lu]",
           QmGetMsgCount(&m_ExecDataQueue[0]), QmGetMsgCount(&m_ExecDataQueue[1]), QmGetMsgCount(&m_ExecDataQueue[2]),
           QmGetMsgCount(&m_ExecDataQueue[3]));
  return 1;
}

void CLogCacheData::FileCacheData(std::list<_CacheExecData>& cacheDataList) {
  const uint32_t dwLimit = m_dwLocalDataCountLimit;
  for (uint32_t dwFiled = 0; dwFiled < dwLimit && !cacheDataList.empty(); ++dwFiled) {
    const _CacheExecData& data = cacheDataList.front();
    // No save flag, and the status of a record that is on disk.
    const int iRet = AddDataAction(0, data.u64DataId, data.iPriv, data.iMsgType, kSaveDone, data.strPluginId,
                                   data.strProduct, data.strCombo, data.strData);
    if (iRet != kStatusOk) {
      LogPrint(g_hLog, kLogWarning,
               "*qmlogcache CLogCacheData::LoadExecData Warn AddDataAction iRet[%x] u64DataId[%llx] iPriv[%d] "
               "iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s] strFileName[%s]",
               static_cast<unsigned int>(iRet), data.u64DataId, data.iPriv, data.iMsgType, data.strPluginId.c_str(),
               data.strProduct.c_str(), data.strCombo.c_str(), data.strFileName.c_str());
    }
    cacheDataList.pop_front();  // at once, so that a large load is in memory once and not twice
  }
}

CLogCacheData::CLoad::CLoad(CLogCacheData& data) : m_data(data) {
  CCriticalSectionGuard guard(m_data.m_csExecData);
  ++m_data.m_uLoads;
}

CLogCacheData::CLoad::~CLoad() {
  CCriticalSectionGuard guard(m_data.m_csExecData);
  if (--m_data.m_uLoads == 0) {
    m_data.m_setDeletedInLoad.clear();
  }
}

void CLogCacheData::CleanLogCacheFile() {
  CCriticalSectionGuard guard(m_csExecData);
  m_mapLogCacheFile.clear();
}
