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
  GUID guid{};
  static_cast<void>(ParseGuid(kServerLinkGuidText, guid));  // a constant of the right form
  // The completion may settle the record before the send returns, so what is logged afterwards is copied before. The
  // caller's hold keeps the payload itself in place.
  _LogExecData copy;
  copy.u64Reserved = pExecData->u64Reserved;
  copy.u64DataId = pExecData->u64DataId;
  copy.iPriv = pExecData->iPriv;
  copy.iMsgType = pExecData->iMsgType;
  copy.strPluginId = pExecData->strPluginId;
  copy.strProduct = pExecData->strProduct;
  copy.strCombo = pExecData->strCombo;

  uint64_t ui64ACT = 0;
  uint32_t uRet = 0;
  {
    // A thread that is cancelled in here leaves its send in flight, like any send whose outcome never comes.
    const CCancellationWindow window;
    uRet = pCompCtx->AsynSendEx(&guid, AGENT_MSG_ASYNC_LOGCACHE,
                                reinterpret_cast<const uint8_t*>(pExecData->strData.c_str()),
                                static_cast<uint32_t>(pExecData->strData.GetLength()), SendCompletion(), copy.u64DataId,
                                &ui64ACT, kSendTimeoutMs);
  }
  if (uRet == 0) {
    LogPrint(g_hLog, kLogNormal,
             "qmlogcache step2 OK RunExecData AsynSendEx lRefCount[%ld] ui64ACT[%lx] u64DataId[%llx] iPriv[%d] "
             "iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
             lRefCount, ui64ACT, copy.u64DataId, copy.iPriv, copy.iMsgType, copy.strPluginId.c_str(),
             copy.strProduct.c_str(), copy.strCombo.c_str());
    return 1;
  }

  lRefCount = SubSendRef();
  m_stat.CountSendFail.Add(1);
  constexpr unsigned long kMsgType = AGENT_MSG_ASYNC_LOGCACHE;
  LogPrint(g_hLogError, kLogWarning,
           "*qmlogcache step2 Error RunExecData lRefCount[%ld] iRet[%x] i64MsgType[%lx] u64DataId[%llx] iPriv[%d] "
           "iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s] strData[%s]",
           lRefCount, uRet, kMsgType, copy.u64DataId, copy.iPriv, copy.iMsgType, copy.strPluginId.c_str(),
           copy.strProduct.c_str(), copy.strCombo.c_str(), pExecData->strData.c_str());
  // A refused send is not tried again: the record is treated as one that the destination rejected.
  const int iRet = m_LogCacheData.DeleteDataAction(copy.u64DataId);
  if (iRet != kStatusOk) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache step2 Error RunExecData AsynSendEx DeleteDataAction Error iRet[%x] i64MsgType[%lx] "
             "u64DataId[%llx] iPriv[%d] iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
             static_cast<unsigned int>(iRet), kMsgType, copy.u64DataId, copy.iPriv, copy.iMsgType,
             copy.strPluginId.c_str(), copy.strProduct.c_str(), copy.strCombo.c_str());
  } else {
    // iRet is the deletion's result, 0, and not the send's; this is meant.
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache step2 Error RunExecData AsynSendEx iRet[%x] i64MsgType[%lx] u64DataId[%llx] iPriv[%d] "
             "iMsgType[%d] strPluginId[%s] strProduct[%s] strCombo[%s]",
             static_cast<unsigned int>(iRet), kMsgType, copy.u64DataId, copy.iPriv, copy.iMsgType,
             copy.strPluginId.c_str(), copy.strProduct.c_str(), copy.strCombo.c_str());
  }
  return 0;
}
