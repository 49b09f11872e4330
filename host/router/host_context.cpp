#include "host/router/host_context.h"

#include <cstdlib>
#include <new>

#include "host/protocol/host_status.h"

namespace {

// The binary interface carries no exceptions.
template <typename TCall>
uint32_t OrNoMemory(const TCall& fnCall) {
  try {
    return fnCall();
  } catch (const std::bad_alloc&) {
    return kHostNoMemory;
  }
}

}  // namespace

CHostContext::~CHostContext() {
  static_cast<void>(m_pCore->EndSession(m_State));
  m_pCore->SetRequests(m_State, nullptr);
}

uint32_t CHostContext::Initialize(const GUID& stComponentID) {
  return OrNoMemory([&] { return m_pCore->BeginSession(m_State, stComponentID); });
}

uint32_t CHostContext::Uninitialize() {
  return OrNoMemory([&] { return m_pCore->EndSession(m_State); });
}

uint32_t CHostContext::Reserved4() {
  return kHostBadArgument;
}
uint32_t CHostContext::Reserved7() {
  return kHostBadArgument;
}
uint32_t CHostContext::Reserved8() {
  return kHostBadArgument;
}

uint32_t CHostContext::AgentGetConnect(const GUID* pDest, uint32_t uCode, const char* pRequest, uint32_t uRequestLength,
                                       uint32_t* puStatus, void** ppReply, uint32_t* puReplyLength,
                                       uint32_t /*uTimeoutMs*/) {
  if (pDest == nullptr || (pRequest == nullptr && uRequestLength != 0) || puStatus == nullptr || ppReply == nullptr ||
      puReplyLength == nullptr) {
    return kHostBadArgument;
  }
  return m_pCore->Request(*pDest, uCode, {pRequest, uRequestLength}, *puStatus, *ppReply, *puReplyLength);
}

uint32_t CHostContext::FreeReply(void* pReply) {
  if (pReply == nullptr) {
    return kHostBadArgument;
  }
  std::free(pReply);
  return kHostOk;
}

uint32_t CHostContext::Receive(uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) {
  return OrNoMemory([&] { return m_pCore->Receive(m_State, uMsgType, pReceiver, pContext); });
}

uint32_t CHostContext::UnReceive(uint32_t uMsgType) {
  return OrNoMemory([&] { return m_pCore->UnReceive(m_State, uMsgType); });
}

uint32_t CHostContext::Reply(int32_t iRet, int64_t /*i64MsgType*/, const char* pReply, uint32_t uLength,
                             void* pReplyHandle) {
  if (pReplyHandle == nullptr || (pReply == nullptr && uLength != 0)) {
    return kHostBadArgument;
  }
  return m_pCore->Reply(m_State, iRet, {pReply, uLength}, pReplyHandle);
}

uint32_t CHostContext::AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                                  IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                                  uint32_t uTimeoutMs) {
  if (pDest == nullptr || (pData == nullptr && uLength != 0)) {
    return kHostBadArgument;
  }
  return m_pCore->Send(m_State, *pDest, uMsgType, {reinterpret_cast<const char*>(pData), uLength}, pComplete,
                       u64UserValue, pu64Act, uTimeoutMs);
}

void CHostContext::SetRequestHandler(IRequestHandler* pHandler) {
  m_pCore->SetRequests(m_State, pHandler);
}

uint32_t CHostContext::Broadcast(uint32_t uMsgType, std::string_view svPayload) {
  return m_pCore->Broadcast(m_State, uMsgType, svPayload);
}
