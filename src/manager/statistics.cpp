// The statistics line.
#include "manager/log_cache_mgr.h"
#include "platform/log_channels.h"

void CLogCacheMgr::PrintfStat() {
  const CPString strDataStat = m_LogCacheData.GetDataStat();
  LogPrint(g_hLog, kLogLifecycle,
           "qmlogcache CLogCacheMgr::PrintfStat StartTime[%x] SequenceId[%x] SendRefCount[%ld] SendSingle[%d] "
           "SaveCacheToDb[%d] SendErrorCount[%ld] CountAll[%llu] CountPlugin[%llu] CountServer[%llu] "
           "CountCloudTag[%llu] CountLow[%llu] CountNormal[%llu] CountHigh[%llu] CountReal[%llu] CountGuid[%llu] "
           "CountCombo[%llu] CountSuccess[%llu] CountAddFail[%llu] CountSendFail[%llu] CountRecvFail[%llu] "
           "CountTimeout[%llu] CountQmcloud[%llu] CountReTimeout[%llu] CountReQmcloud[%llu] %s",
           m_uStartTime.Load(), m_uSequenceId.Load(), m_lSendRefCount.load(), m_iSendSingle.Load(),
           m_iSaveCacheToDb.Load(), m_lSendErrorCount.Load(), m_stat.CountAll.Load(), m_stat.CountPlugin.Load(),
           m_stat.CountServer.Load(), m_stat.CountCloudTag.Load(), m_stat.CountLow.Load(), m_stat.CountNormal.Load(),
           m_stat.CountHigh.Load(), m_stat.CountReal.Load(), m_stat.CountGuid.Load(), m_stat.CountCombo.Load(),
           m_stat.CountSuccess.Load(), m_stat.CountAddFail.Load(), m_stat.CountSendFail.Load(),
           m_stat.CountRecvFail.Load(), m_stat.CountTimeout.Load(), m_stat.CountQmcloud.Load(),
           m_stat.CountReTimeout.Load(), m_stat.CountReQmcloud.Load(), strDataStat.c_str());
}
