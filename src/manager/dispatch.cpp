// Step 2: a record is handed to the router.
#include "manager/cancellation.h"
#include "manager/log_cache_mgr.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "plugin/compctx/message_types.h"

namespace {
constexpr uint32_t kSendTimeoutMs = 120000;
}  // namespace

int CLogCacheMgr::RunExecData(_LogExecData* pExecData) {
  IComponentContext* pCompCtx = m_pCompCtx;
  if (pExecData == nullptr || pCompCtx == nullptr) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache step2 Error RunExecData pExecData[%p] m_pCompCtx[%p]",
             static_cast<void*>(pExecData), static_cast<void*>(pCompCtx));
    return 0;
  }
  long lRefCount = AddSendRef();
  // The completion may settle the record before the send returns. The caller's hold keeps it readable until the end, and
  // what is logged of it never changes.
  const _LogExecData& data = *pExecData;

  uint64_t ui64ACT = 0;
  uint32_t uRet = 0;
  {
    // A thread that is cancelled in here leaves its send in flight, like any send whose outcome never comes.
    const CCancellationWindow window;
    uRet = pCompCtx->AsynSendEx(
        &ServerLinkGuid(), AGENT_MSG_ASYNC_LOGCACHE, reinterpret_cast<const uint8_t*>(data.strData.c_str()),
        static_cast<uint32_t>(data.strData.GetLength()), SendCompletion(), data.u64DataId, &ui64ACT, kSendTimeoutMs);
  }
  if (uRet == 0) {
    LogPrint(g_hLog, kLogNormal,
             "qmlogcache step2 OK RunExecData AsynSendEx lRefCount[%ld] ui64ACT[%lx] u64DataId[%llx] iPriv[%d] "
             "iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
             lRefCount, ui64ACT, data.u64DataId, data.iPriv, data.iMsgType, data.strPluginId.c_str(),
             data.strProduct.c_str(), data.strCombo.c_str());
    return 1;
  }

  lRefCount = SubSendRef();
  m_stat.CountSendFail.Add(1);
  constexpr unsigned long kMsgType = AGENT_MSG_ASYNC_LOGCACHE;
  LogPrint(g_hLogError, kLogWarning,
           "*qmlogcache step2 Error RunExecData lRefCount[%ld] iRet[%x] i64MsgType[%lx] u64DataId[%llx] iPriv[%d] "
           "iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s] strData[%s]",
           lRefCount, uRet, kMsgType, data.u64DataId, data.iPriv, data.iMsgType, data.strPluginId.c_str(),
           data.strProduct.c_str(), data.strCombo.c_str(), data.strData.c_str());
  // A refused send is not tried again: the record is treated as one that the destination rejected.
  const int iRet = m_LogCacheData.DeleteDataAction(data.u64DataId);
  if (iRet != kStatusOk) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache step2 Error RunExecData AsynSendEx DeleteDataAction Error iRet[%x] i64MsgType[%lx] "
             "u64DataId[%llx] iPriv[%d] iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
             static_cast<unsigned int>(iRet), kMsgType, data.u64DataId, data.iPriv, data.iMsgType,
             data.strPluginId.c_str(), data.strProduct.c_str(), data.strCombo.c_str());
  } else {
    // iRet is the deletion's result, 0, and not the send's; this is meant.
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache step2 Error RunExecData AsynSendEx iRet[%x] i64MsgType[%lx] u64DataId[%llx] iPriv[%d] "
             "iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
             static_cast<unsigned int>(iRet), kMsgType, data.u64DataId, data.iPriv, data.iMsgType,
             data.strPluginId.c_str(), data.strProduct.c_str(), data.strCombo.c_str());
  }
  return 0;
}
