#include "message/send_completion.h"

#include "manager/callback_scope.h"
#include "manager/log_cache_mgr.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "plugin/compctx/message_types.h"

// Never destroyed: a completion may come while the process is on its way out.
CLogCacheSend& CLogCacheSend::m_LogCacheSend = *new CLogCacheSend;

void CLogCacheSend::SendCallback(int iRetReply, long i64MsgType, const unsigned char* /*pReply*/,
                                 unsigned int /*uiLength*/, unsigned long ui64ACT, void* pContext) {
  const CCallbackScope scope(CallbackKind::SendCompletion);
  constexpr unsigned long long kMsgType = AGENT_MSG_ASYNC_LOGCACHE;
  const auto uRetReply = static_cast<unsigned int>(iRetReply);
  if (i64MsgType != AGENT_MSG_ASYNC_LOGCACHE) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache SendCallback i64MsgType NOT AGENT_MSG_ASYNC_LOGCACHE i64MsgType[%llx] iRetReply[%x] "
             "ui64ACT[%lx]",
             static_cast<unsigned long long>(i64MsgType), uRetReply, ui64ACT);
    return;
  }
  if (pContext == nullptr) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache SendCallback pContext is NULL i64MsgType[%llx] iRetReply[%x] ui64ACT[%lx]", kMsgType,
             uRetReply, ui64ACT);
    return;
  }
  if (scope.Manager() == nullptr) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache SendCallback pLogCacheMgr is NULL i64MsgType[%llx] iRetReply[%x] ui64ACT[%lx]", kMsgType,
             uRetReply, ui64ACT);
    return;
  }
  const auto u64DataId = static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pContext));
  if (iRetReply == 0) {
    LogPrint(g_hLog, kLogTransport,
             "qmlogcache step2 OK SendCallback i64MsgType[%llx] iRetReply[%x] ui64ACT[%lx] u64DataId[%llx]", kMsgType,
             uRetReply, ui64ACT, u64DataId);
    return;
  }
  static_cast<void>(scope.Manager()->ResultExecData(u64DataId, uRetReply, ui64ACT));  // nobody to answer; it has logged
}
