#include "test_router.h"

#include <cstring>

#include "hang_guard.h"
#include "payloads.h"
#include "plugin/compctx/message_types.h"

namespace {
constexpr uint32_t kNotImplemented = 0xe00100ff;
}  // namespace

bool CTestRouter::Run(uint32_t uMsgType, const GUID& sender, std::string_view svPayload, void* pReplyHandle) {
  Registration* pRegistration = nullptr;
  IMRReceiveComplete* pReceiver = nullptr;
  void* pContext = nullptr;
  {
    const std::lock_guard<std::mutex> guard(m_mutex);
    pRegistration = &m_mapRegistrations[uMsgType];  // entries stay, so the pointer does too
    pReceiver = pRegistration->pReceiver;
    pContext = pRegistration->pContext;
    if (pReceiver == nullptr) {
      return false;
    }
    ++pRegistration->iRunning;
  }
  // The payload is lent in a block of its exact size, so that a read past its end is seen.
  const std::vector<unsigned char> vecPayload(svPayload.begin(), svPayload.end());
  pReceiver->ReceiveCallback(sender, uMsgType, vecPayload.data(), static_cast<unsigned int>(vecPayload.size()),
                             pReplyHandle, pContext);
  const std::lock_guard<std::mutex> guard(m_mutex);
  --pRegistration->iRunning;
  m_changed.notify_all();
  return true;
}

std::optional<Answer> CTestRouter::Deliver(uint32_t uMsgType, const GUID& sender, std::string_view svPayload) {
  Answer answer;
  if (!Run(uMsgType, sender, svPayload, &answer)) {
    return std::nullopt;
  }
  return answer;
}

bool CTestRouter::DeliverWithoutAnswer(uint32_t uMsgType, const GUID& sender, std::string_view svPayload) {
  return Run(uMsgType, sender, svPayload, nullptr);
}

std::optional<Answer> CTestRouter::DeliverResult(uint64_t u64DataId, uint32_t uResult) {
  return Deliver(LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT, kServerLink, ResultPayload(u64DataId, uResult));
}

std::optional<Answer> CTestRouter::DeliverConnect() {
  return Deliver(AGENT_MSG_BROADCAST_CONNECT, kServerLink, "1");
}

bool CTestRouter::Complete(const SentMessage& sent, int iRetReply) {
  {
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (!m_bOpen) {
      return false;
    }
    ++m_iCompletionsRunning;
  }
  sent.pComplete->SendCallback(iRetReply, sent.uMsgType, nullptr, 0, sent.u64Token,
                               reinterpret_cast<void*>(static_cast<uintptr_t>(sent.u64DataId)));
  const std::lock_guard<std::mutex> guard(m_mutex);
  --m_iCompletionsRunning;
  m_changed.notify_all();
  return true;
}

std::vector<std::string> CTestRouter::Calls() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_vecCalls;
}

std::vector<SentMessage> CTestRouter::Sent() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_vecSent;
}

size_t CTestRouter::SentCount() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_vecSent.size();
}

bool CTestRouter::WaitForSent(size_t uCount) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, kHangGuard, [&] { return m_vecSent.size() >= uCount; });
}

std::vector<ConnectQuery> CTestRouter::Queries() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_vecQueries;
}

int CTestRouter::RepliesOut() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_iRepliesOut;
}

IMRReceiveComplete* CTestRouter::ReceiverOf(uint32_t uMsgType) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_mapRegistrations[uMsgType].pReceiver;
}

uint32_t CTestRouter::Initialize(const GUID& stComponentID) {
  char szGuid[kGuidBufferSize] = {};
  FormatGuid(stComponentID, szGuid);
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_vecCalls.push_back(std::string("Initialize ") + szGuid);
  m_bOpen = true;
  return m_uInitializeResult;
}

uint32_t CTestRouter::Uninitialize() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_vecCalls.emplace_back("Uninitialize");
  m_bOpen = false;
  m_changed.wait(lock, [&] { return m_iCompletionsRunning == 0; });
  return 0;
}

uint32_t CTestRouter::Receive(uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) {
  const uint32_t uRet = m_pfnOnReceive ? m_pfnOnReceive(uMsgType) : 0;
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_vecCalls.push_back("Receive " + std::to_string(uMsgType));
  if (uRet == 0) {
    m_mapRegistrations[uMsgType].pReceiver = pReceiver;
    m_mapRegistrations[uMsgType].pContext = pContext;
  }
  return uRet;
}

uint32_t CTestRouter::UnReceive(uint32_t uMsgType) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_vecCalls.push_back("UnReceive " + std::to_string(uMsgType));
  Registration& registration = m_mapRegistrations[uMsgType];
  registration.pReceiver = nullptr;
  m_changed.wait(lock, [&] { return registration.iRunning == 0; });
  return 0;
}

uint32_t CTestRouter::Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength,
                            void* pReplyHandle) {
  auto* pAnswer = static_cast<Answer*>(pReplyHandle);
  ++pAnswer->iReplies;
  pAnswer->uRet = static_cast<uint32_t>(iRet);
  pAnswer->i64MsgType = i64MsgType;
  pAnswer->strText.assign(pReply, uLength);
  if (m_pfnOnReply) {
    m_pfnOnReply(*pAnswer);
  }
  return 0;
}

uint32_t CTestRouter::AgentGetConnect(const GUID* pDest, uint32_t uCode, const char* pRequest, uint32_t uRequestLength,
                                      uint32_t* puStatus, void** ppReply, uint32_t* puReplyLength,
                                      uint32_t uTimeoutMs) {
  const ConnectQuery query{*pDest, uCode, std::string(pRequest, uRequestLength), uTimeoutMs, *puStatus};
  {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_vecQueries.push_back(query);
    m_changed.notify_all();
  }
  if (!m_pfnOnConnect) {
    return kNotImplemented;
  }
  const ConnectAnswer answer = m_pfnOnConnect(query);
  *puStatus = answer.uStatus;
  if (answer.bReply) {
    auto* pReply = new char[answer.strReply.size() + 1];  // not terminated: the length says where it ends
    std::memcpy(pReply, answer.strReply.data(), answer.strReply.size());
    pReply[answer.strReply.size()] = '!';
    *ppReply = pReply;
    *puReplyLength = static_cast<uint32_t>(answer.strReply.size());
    const std::lock_guard<std::mutex> guard(m_mutex);
    ++m_iRepliesOut;
  }
  return answer.uRet;
}

uint32_t CTestRouter::FreeReply(void* pReply) {
  delete[] static_cast<char*>(pReply);
  const std::lock_guard<std::mutex> guard(m_mutex);
  --m_iRepliesOut;
  return 0;
}

uint32_t CTestRouter::AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                                 IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                                 uint32_t uTimeoutMs) {
  SentMessage sent{*pDest,    uMsgType,     std::string(reinterpret_cast<const char*>(pData), uLength),
                   pComplete, u64UserValue, 0,
                   uTimeoutMs};
  {
    const std::lock_guard<std::mutex> guard(m_mutex);
    sent.u64Token = ++m_u64LastToken;
    *pu64Act = sent.u64Token;
  }
  if (m_pfnOnSend) {
    const uint32_t uRet = m_pfnOnSend(sent);
    if (uRet != 0) {
      return uRet;
    }
  }
  const std::lock_guard<std::mutex> guard(m_mutex);
  if (m_bKeepSent) {
    m_vecSent.push_back(std::move(sent));
  }
  m_changed.notify_all();
  return 0;
}

uint32_t CTestRouter::Reserved4() {
  return kNotImplemented;
}
uint32_t CTestRouter::Reserved7() {
  return kNotImplemented;
}
uint32_t CTestRouter::Reserved8() {
  return kNotImplemented;
}
