// Step 3: the outcome of a send settles its record.
#include "manager/log_cache_mgr.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"

namespace {

enum class Outcome { Delivered, Timeout, Cloud, Rejected };

Outcome Classify(uint32_t dwResult) {
  switch (dwResult) {
    case kResultDelivered:
      return Outcome::Delivered;
    case kResultTimeout:
      return Outcome::Timeout;
    case kResultCloudBusy:
    case kResultCloudFailed:
      return Outcome::Cloud;
    default:
      return Outcome::Rejected;
  }
}

// What a settlement line prints of a record: the values before the action.
struct SettlementLog {
  const _LogExecData& data;
  CLogCacheData::ChangingFields fields;
  long lRefCount;
  uint32_t dwResult;
  unsigned long ui64ACT;

  void Success() const {
    LogPrint(g_hLog, kLogNormal,
             "qmlogcache step3 OK ResultExecData DeleteDataAction OK SubSendRef lRefCount[%ld] StartTime[%x] "
             "ReSendCount[%u] ui64ACT[%lx] u64DataId[%llx] iPriv[%d] iMsgType[%d] iDataSaveStatus[%d] strPluginId[%s] "
             "strProduct[%s] strCombo[%s]\n",
             lRefCount, fields.dwStartTime, fields.dwReSendCount, ui64ACT, data.u64DataId, data.iPriv, data.iMsgType,
             fields.iDataSaveStatus, data.strPluginId.c_str(), data.strProduct.c_str(), data.strCombo.c_str());
  }
  void SuccessNotDeleted(int iRet) const {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache step3 OK Error ResultExecData OK DeleteDataAction Error iRet[%x] SubSendRef lRefCount[%ld] "
             "StartTime[%x] ReSendCount[%u] ui64ACT[%lx] u64DataId[%llx] iPriv[%d] iMsgType[%d] iDataSaveStatus[%d] "
             "strPluginId[%s] strProduct[%s] strCombo[%s]\n",
             static_cast<unsigned int>(iRet), lRefCount, fields.dwStartTime, fields.dwReSendCount, ui64ACT,
             data.u64DataId, data.iPriv, data.iMsgType, fields.iDataSaveStatus, data.strPluginId.c_str(),
             data.strProduct.c_str(), data.strCombo.c_str());
  }
  // A failure whose action succeeded. pszFormat takes the fields in this order.
  void Failure(const char* pszFormat) const {
    LogPrint(g_hLog, kLogWarning, pszFormat, lRefCount, dwResult, fields.dwStartTime, fields.dwReSendCount, ui64ACT,
             data.u64DataId, data.iPriv, data.iMsgType, fields.iDataSaveStatus, data.strPluginId.c_str(),
             data.strProduct.c_str(), data.strCombo.c_str());
  }
  // A failure whose action failed too.
  void FailureOfAction(const char* pszFormat, int iRet) const {
    LogPrint(g_hLog, kLogWarning, pszFormat, static_cast<unsigned int>(iRet), lRefCount, dwResult, fields.dwStartTime,
             fields.dwReSendCount, ui64ACT, data.u64DataId, data.iPriv, data.iMsgType, fields.iDataSaveStatus,
             data.strPluginId.c_str(), data.strProduct.c_str(), data.strCombo.c_str());
  }
  // The only copy of a rejected record.
  void RejectedData() const {
    LogPrint(g_hLogError, kLogWarning,
             "*qmlogcache step3 Error ResultExecData result[%x] StartTime[%x] ReSendCount[%u] ui64ACT[%lx] "
             "u64DataId[%llx] iPriv[%d] iMsgType[%d] iDataSaveStatus[%d] strPluginId[%s] strProduct[%s] strCombo[%s] "
             "strData[%s]",
             dwResult, fields.dwStartTime, fields.dwReSendCount, ui64ACT, data.u64DataId, data.iPriv, data.iMsgType,
             fields.iDataSaveStatus, data.strPluginId.c_str(), data.strProduct.c_str(), data.strCombo.c_str(),
             data.strData.c_str());
  }
};

}  // namespace

int CLogCacheMgr::ResultExecData(unsigned long long u64DataId, uint32_t dwResult, unsigned long ui64ACT) {
  CCriticalSectionGuard guard(m_csSettlement);
  const long lRefCount = SubSendRef();
  const Outcome outcome = Classify(dwResult);
  CLogCacheData::ChangingFields fields;
  const ExecDataHold hold = m_LogCacheData.FindExecData(u64DataId, fields);
  if (hold == nullptr) {
    // lRefCount and ui64ACT stand under each other's label and the id is decimal; both are meant and relied upon.
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache step3 Error ResultExecData GetExecDataFromMap iRet[%x] SubSendRef lRefCount[%ld] "
             "ui64ACT[%lx] u64DataId[%llu] dwResult[%x]\n",
             static_cast<unsigned int>(kStatusUnknownDataId), static_cast<long>(ui64ACT),
             static_cast<unsigned long>(lRefCount), u64DataId, dwResult);
    return kStatusUnknownDataId;
  }
  const bool bRetry = outcome == Outcome::Timeout || outcome == Outcome::Cloud;
  SetSendSingleFlag(bRetry ? 1 : 0);
  const SettlementLog log{*hold, fields, lRefCount, dwResult, ui64ACT};

  if (bRetry) {
    const bool bFirst = fields.dwReSendCount == 0;
    if (outcome == Outcome::Timeout) {
      (bFirst ? m_stat.CountTimeout : m_stat.CountReTimeout).Add(1);
    } else {
      (bFirst ? m_stat.CountQmcloud : m_stat.CountReQmcloud).Add(1);
    }
    const int iRet = m_LogCacheData.ReAddDataAction(u64DataId);
    if (iRet == kStatusOk) {
      log.Failure(
          "*qmlogcache step3 Error ResultExecData ReAddDataAction OK SubSendRef lRefCount[%ld] result[%x] "
          "StartTime[%x] ReSendCount[%u] ui64ACT[%lx] u64DataId[%llx] iPriv[%d] iMsgType[%d] iDataSaveStatus[%d] "
          "strPluginId[%s] strProduct[%s] strCombo[%s]\n");
    } else {
      log.FailureOfAction(
          "*qmlogcache step3 Error ResultExecData ReAddDataAction Error iRet[%x] SubSendRef lRefCount[%ld] result[%x] "
          "StartTime[%x] ReSendCount[%u] ui64ACT[%lx] u64DataId[%llx] iPriv[%d] iMsgType[%d] iDataSaveStatus[%d] "
          "strPluginId[%s] strProduct[%s] strCombo[%s]\n",
          iRet);
    }
    return iRet;
  }

  if (outcome == Outcome::Delivered) {
    m_stat.CountSuccess.Add(1);
    const int iRet = m_LogCacheData.DeleteDataAction(u64DataId);
    if (iRet == kStatusOk) {
      log.Success();
    } else {
      log.SuccessNotDeleted(iRet);
    }
    return iRet;
  }

  m_stat.CountRecvFail.Add(1);
  log.RejectedData();
  const int iRet = m_LogCacheData.DeleteDataAction(u64DataId);
  if (iRet == kStatusOk) {
    log.Failure(
        "*qmlogcache step3 Error ResultExecData DeleteDataAction OK SubSendRef lRefCount[%ld] result[%x] "
        "StartTime[%x] ReSendCount[%u] ui64ACT[%lx] u64DataId[%llx] iPriv[%d] iMsgType[%d] iDataSaveStatus[%d] "
        "strPluginId[%s] strProduct[%s] strCombo[%s]\n");
  } else {
    log.FailureOfAction(
        "*qmlogcache step3 Error ResultExecData DeleteDataAction Error iRet[%x] SubSendRef lRefCount[%ld] result[%x] "
        "StartTime[%x] ReSendCount[%u] ui64ACT[%lx] u64DataId[%llx] iPriv[%d] iMsgType[%d] iDataSaveStatus[%d] "
        "strPluginId[%s] strProduct[%s] strCombo[%s]\n",
        iRet);
  }
  return iRet;
}
