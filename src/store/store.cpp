// Construction, destruction, limits and the status line of the store.
#include "platform/event.h"
#include "platform/status_codes.h"
#include "store/log_cache_data.h"

CLogCacheData::CLogCacheData() : m_hDataEvent(QmCreateEvent(0, 0, nullptr, nullptr)) {
  for (QmMsgQueue& queue : m_ExecDataQueue) {
    QmMsgQueueInit(&queue);
  }
  QmInitializeCriticalSection(&m_csExecData);
}

CLogCacheData::~CLogCacheData() {
  ForgetQueuedData();
  for (QmMsgQueue& queue : m_ExecDataQueue) {
    QmMsgQueueFini(&queue);
  }
  CleanExecDataMap();
  CleanLogCacheFile();
  if (m_hDataEvent != nullptr) {
    QmSetEvent(m_hDataEvent);
    QmDestroyEvent(m_hDataEvent);
    m_hDataEvent = nullptr;
  }
  QmDeleteCriticalSection(&m_csExecData);
}

int CLogCacheData::CheckExecDataLimit() {
  uint32_t dwCount = 0;
  {
    CCriticalSectionGuard guard(m_csExecData);
    dwCount = static_cast<uint32_t>(m_mapLogExecData.size());
  }
  return m_dwDataCountLimit < dwCount ? kStatusCountLimit : kStatusOk;
}

void CLogCacheData::DelFirLineFromExecData() {
  CCriticalSectionGuard guard(m_csExecData);
  for (const auto& [u64DataId, pExecData] : m_mapLogExecData) {
    if (pExecData->bIsDel == 0) {
      pExecData->bIsDel = 1;
      return;
    }
  }
}

CPString CLogCacheData::GetDataStat() {
  unsigned int uFiles = 0;
  unsigned int uRecords = 0;
  {
    CCriticalSectionGuard guard(m_csExecData);
    uFiles = static_cast<unsigned int>(m_mapLogCacheFile.size());
    uRecords = static_cast<unsigned int>(m_mapLogExecData.size());
  }
  CPString strStat;
  strStat.Format(
      "mapLogCacheFile[%u] mapLogExecData[%u] LowQueueData[%lu] NormalQueueData[%lu] HighQueueData[%lu] "
      "RealQueueData[%lu]",
      uFiles, uRecords, QmGetMsgCount(&m_ExecDataQueue[0]), QmGetMsgCount(&m_ExecDataQueue[1]),
      QmGetMsgCount(&m_ExecDataQueue[2]), QmGetMsgCount(&m_ExecDataQueue[3]));
  return strStat;
}
