#include "tests/support/fake_context.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <utility>

namespace {

constexpr auto kHangGuard = std::chrono::seconds(60);

std::string TextOf(const GUID& guid) {
  char szText[kGuidBufferSize] = {};
  FormatGuid(guid, szText);
  return szText;
}

// Undone by a cancellation's unwinding too.
class CPthreadLock {
 public:
  explicit CPthreadLock(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
  ~CPthreadLock() { pthread_mutex_unlock(&m_mutex); }
  CPthreadLock(const CPthreadLock&) = delete;
  CPthreadLock& operator=(const CPthreadLock&) = delete;

 private:
  pthread_mutex_t& m_mutex;
};

}  // namespace

std::vector<std::string> CFakeContext::Calls() {
  const std::lock_guard lock(m_mutex);
  return m_vecCalls;
}

std::vector<SentMessage> CFakeContext::Sends() {
  const std::lock_guard lock(m_mutex);
  return m_vecSends;
}

std::vector<GivenReply> CFakeContext::Replies() {
  const std::lock_guard lock(m_mutex);
  return m_vecReplies;
}

std::vector<ConnectQuery> CFakeContext::Queries() {
  const std::lock_guard lock(m_mutex);
  return m_vecQueries;
}

std::vector<Registration> CFakeContext::Registrations() {
  const std::lock_guard lock(m_mutex);
  return m_vecRegistrations;
}

std::vector<void*> CFakeContext::FreedReplies() {
  const std::lock_guard lock(m_mutex);
  return m_vecFreed;
}

std::vector<std::string> CFakeContext::InitializedWith() {
  const std::lock_guard lock(m_mutex);
  return m_vecInitialized;
}

bool CFakeContext::WaitUntilBlocked() {
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += std::chrono::duration_cast<std::chrono::seconds>(kHangGuard).count();
  const CPthreadLock lock(m_blockMutex);
  while (m_iBlocked == 0) {
    if (pthread_cond_timedwait(&m_blockCondition, &m_blockMutex, &deadline) != 0) {
      return m_iBlocked != 0;
    }
  }
  return true;
}

bool CFakeContext::WaitForSends(size_t uCount) {
  std::unique_lock lock(m_mutex);
  return m_changed.wait_for(lock, kHangGuard, [&] { return m_vecSends.size() >= uCount; });
}

bool CFakeContext::WaitForCall(const std::string& strCall) {
  std::unique_lock lock(m_mutex);
  return m_changed.wait_for(
      lock, kHangGuard, [&] { return std::find(m_vecCalls.begin(), m_vecCalls.end(), strCall) != m_vecCalls.end(); });
}

void CFakeContext::SetInitializeResult(uint32_t uRet) {
  const std::lock_guard lock(m_mutex);
  m_uInitializeResult = uRet;
}

void CFakeContext::SetReceiveResult(uint32_t uMsgType, uint32_t uRet) {
  const std::lock_guard lock(m_mutex);
  m_mapReceiveResults[uMsgType] = uRet;
}

void CFakeContext::SetConnectAnswer(uint32_t uRet, uint32_t uStatus, const char* pszReply) {
  SetConnectAnswer(uRet, uStatus, pszReply, pszReply == nullptr ? 0 : static_cast<uint32_t>(strlen(pszReply)));
}

void CFakeContext::SetConnectAnswer(uint32_t uRet, uint32_t uStatus, const char* pszReply, uint32_t uReplyLength) {
  const std::lock_guard lock(m_mutex);
  m_uConnectResult = uRet;
  m_uConnectStatus = uStatus;
  m_bConnectReply = pszReply != nullptr;
  m_strConnectReply = pszReply == nullptr ? "" : pszReply;
  m_uConnectReplyLength = uReplyLength;
}

void CFakeContext::SetSendHandler(SendHandler handler) {
  const std::lock_guard lock(m_mutex);
  m_sendHandler = std::move(handler);
}

void CFakeContext::SetQueryHandler(std::function<void()> handler) {
  const std::lock_guard lock(m_mutex);
  m_queryHandler = std::move(handler);
}

void CFakeContext::SetReplyHandler(std::function<void()> handler) {
  const std::lock_guard lock(m_mutex);
  m_replyHandler = std::move(handler);
}

void CFakeContext::Block() {
  struct Inside {
    explicit Inside(int& iBlocked) : iCount(iBlocked) { ++iCount; }
    ~Inside() { --iCount; }
    int& iCount;
  };
  const CPthreadLock lock(m_blockMutex);
  const Inside inside(m_iBlocked);
  pthread_cond_broadcast(&m_blockCondition);
  while (!m_bReleased) {
    pthread_cond_wait(&m_blockCondition, &m_blockMutex);
  }
}

void CFakeContext::Release() {
  const CPthreadLock lock(m_blockMutex);
  m_bReleased = true;
  pthread_cond_broadcast(&m_blockCondition);
}

uint32_t CFakeContext::Initialize(const GUID& stComponentID) {
  const std::lock_guard lock(m_mutex);
  m_vecCalls.emplace_back("Initialize");
  m_vecInitialized.push_back(TextOf(stComponentID));
  return m_uInitializeResult;
}

uint32_t CFakeContext::Uninitialize() {
  const std::lock_guard lock(m_mutex);
  m_vecCalls.emplace_back("Uninitialize");
  return 0;
}

uint32_t CFakeContext::Reserved4() {
  const std::lock_guard lock(m_mutex);
  m_vecCalls.emplace_back("Reserved4");
  return 0;
}

uint32_t CFakeContext::AgentGetConnect(const GUID* pDest, uint32_t uCode, const char* pRequest, uint32_t uRequestLength,
                                       uint32_t* puStatus, void** ppReply, uint32_t* puReplyLength,
                                       uint32_t uTimeoutMs) {
  std::function<void()> handler;
  {
    const std::lock_guard lock(m_mutex);
    m_vecCalls.emplace_back("AgentGetConnect");
    m_vecQueries.push_back({TextOf(*pDest), uCode, pRequest, uRequestLength, *puStatus, uTimeoutMs});
    handler = m_queryHandler;
  }
  if (handler) {
    handler();
  }
  const std::lock_guard lock(m_mutex);
  *puStatus = m_uConnectStatus;
  *puReplyLength = m_uConnectReplyLength;
  *ppReply = m_bConnectReply ? m_strConnectReply.data() : nullptr;
  return m_uConnectResult;
}

uint32_t CFakeContext::FreeReply(void* pReply) {
  const std::lock_guard lock(m_mutex);
  m_vecCalls.emplace_back("FreeReply");
  m_vecFreed.push_back(pReply);
  return 0;
}

uint32_t CFakeContext::Reserved7() {
  const std::lock_guard lock(m_mutex);
  m_vecCalls.emplace_back("Reserved7");
  return 0;
}

uint32_t CFakeContext::Reserved8() {
  const std::lock_guard lock(m_mutex);
  m_vecCalls.emplace_back("Reserved8");
  return 0;
}

uint32_t CFakeContext::Receive(uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) {
  const std::lock_guard lock(m_mutex);
  m_vecCalls.push_back("Receive " + std::to_string(uMsgType));
  m_vecRegistrations.push_back({uMsgType, pReceiver, pContext});
  const auto it = m_mapReceiveResults.find(uMsgType);
  return it == m_mapReceiveResults.end() ? 0 : it->second;
}

uint32_t CFakeContext::UnReceive(uint32_t uMsgType) {
  const std::lock_guard lock(m_mutex);
  m_vecCalls.push_back("UnReceive " + std::to_string(uMsgType));
  m_changed.notify_all();
  return 0;
}

uint32_t CFakeContext::Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength,
                             void* pReplyHandle) {
  std::function<void()> handler;
  {
    const std::lock_guard lock(m_mutex);
    m_vecCalls.emplace_back("Reply");
    m_vecReplies.push_back({iRet, i64MsgType, std::string(pReply, uLength), pReplyHandle});
    handler = m_replyHandler;
  }
  if (handler) {
    handler();
  }
  return 0;
}

uint32_t CFakeContext::AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                                  IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                                  uint32_t uTimeoutMs) {
  const SentMessage message{TextOf(*pDest), uMsgType,     std::string(reinterpret_cast<const char*>(pData), uLength),
                            pComplete,      u64UserValue, *pu64Act,
                            uTimeoutMs};
  SendHandler handler;
  {
    const std::lock_guard lock(m_mutex);
    m_vecCalls.emplace_back("AsynSendEx");
    m_vecSends.push_back(message);
    handler = m_sendHandler;
  }
  m_changed.notify_all();
  return handler ? handler(message, pu64Act) : 0;
}
