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
  CCriticalSectionGuard guard(m_csExecData);
  return CheckExecDataLimitLocked();
}

int CLogCacheData::CheckExecDataLimitLocked() {
  return m_dwDataCountLimit < static_cast<uint32_t>(m_mapLogExecData.size()) ? kStatusCountLimit : kStatusOk;
}

void CLogCacheData::DelFirLineFromExecData() {
  CCriticalSectionGuard guard(m_csExecData);
  DelFirLineFromExecDataLocked();
}

void CLogCacheData::DelFirLineFromExecDataLocked() {
  for (auto it = m_mapLogExecData.lower_bound(m_u64FirstUnmarked); it != m_mapLogExecData.end(); ++it) {
    _LogExecData& data = *it->second;
    if (data.bIsDel == 0) {
      data.bIsDel = 1;
      m_u64FirstUnmarked = it->first;
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
