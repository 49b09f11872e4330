#include "message/receive.h"

#include <array>
#include <cstring>
#include <exception>

#include "manager/callback_scope.h"
#include "manager/log_cache_mgr.h"
#include "message/wire_format.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "plugin/compctx/message_types.h"

namespace {

// One inbound message, as the callback was given it.
struct Message {
  const GUID& sender;
  long i64MsgType;
  const unsigned char* pData;
  unsigned int uiDataLength;
};

// GUID text of a message's sender, valid until the thread asks for another one's. A thread's messages come in runs of one
// sender. What is kept for a thread needs no destructor, whose registration would need memory.
const char* SenderText(const GUID& sender) {
  struct Sender {
    GUID guid;
    char szText[kGuidBufferSize];
  };
  thread_local Sender t_sender = {};
  if (t_sender.szText[0] == '\0' || std::memcmp(&t_sender.guid, &sender, sizeof(GUID)) != 0) {
    FormatGuid(sender, t_sender.szText);
    t_sender.guid = sender;
  }
  return t_sender.szText;
}

// The part of a message that is a record's data.
std::string_view DataFrom(const Message& message, uint32_t uOffset, uint32_t uLength) {
  return {reinterpret_cast<const char*>(message.pData) + uOffset, uLength};
}

int RejectUnknownType(const Message& message) {
  LogPrint(g_hLog, kLogWarning,
           "*qmlogcache step1 Error ReceiveCallback GetPrivAndMsgType i64MsgType[%llx] stComponentID[%s] "
           "uiDataLength[%u]",
           static_cast<unsigned long long>(message.i64MsgType), SenderText(message.sender), message.uiDataLength);
  return kStatusUnknownType;
}

int TakeResult(CLogCacheMgr& manager, const Message& message) {
  if (message.uiDataLength != kResultMessageSize) {
    constexpr unsigned long long kMsgType = LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT;
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheReceive::ReceiveCallback Error recv size i64MsgType[%llx] stComponentID[%s] "
             "uiDataLength[%u] recvSize[%u]",
             kMsgType, SenderText(message.sender), message.uiDataLength, kResultMessageSize);
    return kStatusBadResultSize;
  }
  const ResultMessage result = DecodeResultMessage(message.pData);
  return manager.ResultExecData(result.u64DataId, result.dwResult, 0);
}

int TakeCombo(CLogCacheMgr& manager, const Message& message) {
  const ComboHeader header = DecodeComboHeader(message.pData, message.uiDataLength);
  const CPString strProduct(header.svProduct);
  const CPString strCombo(header.svCombo);
  const uint64_t u64Expected = static_cast<uint64_t>(header.uDataLength) + kComboHeaderSize;
  if (message.uiDataLength < kComboHeaderSize || message.uiDataLength < u64Expected) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache step1 Error ReceiveCallback size i64MsgType[%llx] stComponentID[%s] uiDataLength[%u] "
             "recvSize[%u] iJsonDataType[%d] iPriv[%d] szProduct[%s] szCombo[%s] uDataLength[%u]",
             static_cast<unsigned long long>(message.i64MsgType), SenderText(message.sender), message.uiDataLength,
             static_cast<uint32_t>(u64Expected), header.iJsonDataType, header.iPriv, strProduct.c_str(),
             strCombo.c_str(), header.uDataLength);
    return kStatusBadSize;
  }
  if (header.iPriv < 0) {
    return RejectUnknownType(message);  // no queue serves a negative priority
  }
  const int iDataSaveStatus = header.iDataSaveFlag != kComboDoNotSave ? kSavePending : kSaveNever;
  return manager.AddExecData(message.i64MsgType, header.iPriv, header.iJsonDataType, iDataSaveStatus,
                             CPString(SenderText(message.sender)), strProduct, strCombo,
                             DataFrom(message, kComboHeaderSize, header.uDataLength));
}

int TakePriorityMessage(CLogCacheMgr& manager, const Message& message) {
  int iPriv = 0;
  int iMsgType = 0;
  if (!CLogCacheReceive::GetPrivAndMsgType(message.i64MsgType, iPriv, iMsgType)) {
    return RejectUnknownType(message);
  }
  return manager.AddExecData(message.i64MsgType, iPriv, iMsgType, kSavePending, CPString(SenderText(message.sender)),
                             CPString(), CPString(), DataFrom(message, 0, message.uiDataLength));
}

int TakeMessage(CLogCacheMgr* pLogCacheMgr, const Message& message) {
  if (message.pData == nullptr || message.uiDataLength == 0) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheReceive::ReceiveCallback Error pData is NULL i64MsgType[%llx] stComponentID[%s] "
             "pData[%p] uiDataLength[%u]",
             static_cast<unsigned long long>(message.i64MsgType), SenderText(message.sender),
             static_cast<const void*>(message.pData), message.uiDataLength);
    return kStatusEmptyData;
  }
  if (pLogCacheMgr == nullptr) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheReceive::ReceiveCallback Error pLogCacheMgr is NULL i64MsgType[%llx] "
             "stComponentID[%s] uiDataLength[%u]",
             static_cast<unsigned long long>(message.i64MsgType), SenderText(message.sender), message.uiDataLength);
    return kStatusNoResource;
  }
  switch (message.i64MsgType) {
    case AGENT_MSG_BROADCAST_CONNECT:
      pLogCacheMgr->BroadcastConnect();
      LogPrint(g_hLog, kLogNormal,
               "qmlogcache CLogCacheReceive::ReceiveCallback AGENT_MSG_BROADCAST_CONNECT stComponentID[%s] "
               "uiDataLength[%u]",
               SenderText(message.sender), message.uiDataLength);
      return kStatusOk;
    case LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT:
      return TakeResult(*pLogCacheMgr, message);
    case LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA:
    case LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA:
      return TakeCombo(*pLogCacheMgr, message);
    default:
      return TakePriorityMessage(*pLogCacheMgr, message);
  }
}

struct TypeBase {
  uint32_t uBase;
  int iMsgType;
};
constexpr int kKindServer = 1;
constexpr int kKindPlugin = 2;
constexpr int kKindCloudTag = 3;
constexpr std::array<TypeBase, 3> kTypeBases = {{{LOGCACHE_MSG_SYNC_SERVER_BASE, kKindServer},
                                                 {LOGCACHE_MSG_SYNC_PLUGIN_BASE, kKindPlugin},
                                                 {kCloudTagBase, kKindCloudTag}}};

}  // namespace

// Never destroyed: a message may come while the process is on its way out.
CLogCacheReceive& CLogCacheReceive::m_gReceive = *new CLogCacheReceive;

bool CLogCacheReceive::GetPrivAndMsgType(long long i64MsgType, int& iPriv, int& iMsgType) {
  constexpr long long kPublic = 10;
  constexpr long long kPriorities = 4;
  for (const TypeBase& base : kTypeBases) {
    if (i64MsgType < base.uBase || i64MsgType >= base.uBase + kPublic + kPriorities) {
      continue;
    }
    const long long i64Offset = i64MsgType - base.uBase;
    if (i64Offset < kPriorities || i64Offset >= kPublic) {
      iPriv = static_cast<int>(i64Offset);
      iMsgType = base.iMsgType;
      return true;
    }
  }
  return false;
}

void CLogCacheReceive::ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                                       unsigned int uiDataLength, void* pReplyHandle, void* pContext) {
  const CCallbackScope scope(CallbackKind::Receive);
  int iRet = kStatusOk;
  try {
    iRet = TakeMessage(scope.Manager(), {stComponentID, i64MsgType, pData, uiDataLength});
  } catch (const std::exception&) {
    iRet = kStatusNoResource;
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheReceive::ReceiveCallback Error no memory i64MsgType[%llx] stComponentID[%s] "
             "uiDataLength[%u]",
             static_cast<unsigned long long>(i64MsgType), SenderText(stComponentID), uiDataLength);
  }
  if (pContext != nullptr && pReplyHandle != nullptr) {
    constexpr char kSuccess[] = "success";
    constexpr char kFail[] = "fail";
    const bool bSuccess = iRet == kStatusOk;
    static_cast<void>(static_cast<IComponentContext*>(pContext)->Reply(
        iRet, i64MsgType, bSuccess ? kSuccess : kFail,
        static_cast<uint32_t>((bSuccess ? sizeof(kSuccess) : sizeof(kFail)) - 1), pReplyHandle));
  }
}
