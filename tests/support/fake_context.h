// A component context that keeps every call and fails, blocks or calls back on request.
//
// All functions may be called from any thread. Handlers run on the calling thread and without a lock; set them before
// the component can call.
#ifndef QMLOGCACHE_TESTS_SUPPORT_FAKE_CONTEXT_H_
#define QMLOGCACHE_TESTS_SUPPORT_FAKE_CONTEXT_H_

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "plugin/compctx/component_context.h"

struct SentMessage {
  std::string strDest;  // GUID text
  uint32_t uMsgType = 0;
  std::string strData;
  IMRSendComplete* pComplete = nullptr;
  uint64_t u64UserValue = 0;
  uint64_t u64ActBefore = 0;
  uint32_t uTimeoutMs = 0;
};

struct GivenReply {
  int32_t iRet = 0;
  int64_t i64MsgType = 0;
  std::string strText;
  void* pReplyHandle = nullptr;
};

struct ConnectQuery {
  std::string strDest;
  uint32_t uCode = 0;
  std::string strRequest;
  uint32_t uRequestLength = 0;
  uint32_t uStatusBefore = 0;
  uint32_t uTimeoutMs = 0;
};

struct Registration {
  uint32_t uMsgType = 0;
  IMRReceiveComplete* pReceiver = nullptr;
  void* pContext = nullptr;
};

class CFakeContext : public IComponentContext {
 public:
  CFakeContext() = default;
  CFakeContext(const CFakeContext&) = delete;
  CFakeContext& operator=(const CFakeContext&) = delete;

  // --- What the component did ---
  // Every call's name, in order; with the message type for Receive and UnReceive ("Receive 10100").
  std::vector<std::string> Calls();
  std::vector<SentMessage> Sends();
  std::vector<GivenReply> Replies();
  std::vector<ConnectQuery> Queries();
  std::vector<Registration> Registrations();
  std::vector<void*> FreedReplies();
  std::vector<std::string> InitializedWith();  // GUID texts
  // Waits until the component is inside a call that Block keeps. False when it has not come after a long time.
  [[nodiscard]] bool WaitUntilBlocked();
  [[nodiscard]] bool WaitForSends(size_t uCount);
  // Waits for a call as Calls names it.
  [[nodiscard]] bool WaitForCall(const std::string& strCall);

  // --- What it answers ---
  void SetInitializeResult(uint32_t uRet);
  void SetReceiveResult(uint32_t uMsgType, uint32_t uRet);
  // Answer of the connection query: the call's result, the reply status and the reply, null for none.
  void SetConnectAnswer(uint32_t uRet, uint32_t uStatus, const char* pszReply);
  // The same with a length of its own.
  void SetConnectAnswer(uint32_t uRet, uint32_t uStatus, const char* pszReply, uint32_t uReplyLength);
  using SendHandler = std::function<uint32_t(const SentMessage&, uint64_t* pu64Act)>;
  void SetSendHandler(SendHandler handler);
  void SetQueryHandler(std::function<void()> handler);
  void SetReplyHandler(std::function<void()> handler);

  // For handlers: stays inside until Release, at a point where a thread can be cancelled.
  void Block();
  void Release();

  uint32_t Initialize(const GUID& stComponentID) override;
  uint32_t Uninitialize() override;
  uint32_t Reserved4() override;
  uint32_t AgentGetConnect(const GUID* pDest, uint32_t uCode, const char* pRequest, uint32_t uRequestLength,
                           uint32_t* puStatus, void** ppReply, uint32_t* puReplyLength, uint32_t uTimeoutMs) override;
  uint32_t FreeReply(void* pReply) override;
  uint32_t Reserved7() override;
  uint32_t Reserved8() override;
  uint32_t Receive(uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) override;
  uint32_t UnReceive(uint32_t uMsgType) override;
  uint32_t Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength, void* pReplyHandle) override;
  uint32_t AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                      IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                      uint32_t uTimeoutMs) override;

 private:
  std::mutex m_mutex;  // guards the members down to m_replyHandler
  std::condition_variable m_changed;
  std::vector<std::string> m_vecCalls;
  std::vector<SentMessage> m_vecSends;
  std::vector<GivenReply> m_vecReplies;
  std::vector<ConnectQuery> m_vecQueries;
  std::vector<Registration> m_vecRegistrations;
  std::vector<void*> m_vecFreed;
  std::vector<std::string> m_vecInitialized;
  uint32_t m_uInitializeResult = 0;
  std::map<uint32_t, uint32_t> m_mapReceiveResults;
  uint32_t m_uConnectResult = 0;
  uint32_t m_uConnectStatus = 0;
  std::string m_strConnectReply;
  bool m_bConnectReply = false;
  uint32_t m_uConnectReplyLength = 0;
  SendHandler m_sendHandler;
  std::function<void()> m_queryHandler;
  std::function<void()> m_replyHandler;

  // Plain pthread objects: a wait on them can be cancelled.
  pthread_mutex_t m_blockMutex = PTHREAD_MUTEX_INITIALIZER;  // guards the two members below
  pthread_cond_t m_blockCondition = PTHREAD_COND_INITIALIZER;
  int m_iBlocked = 0;
  bool m_bReleased = false;
};

#endif  // QMLOGCACHE_TESTS_SUPPORT_FAKE_CONTEXT_H_
