// The host's message router, in process: implements the component context, runs callbacks on the threads that call it,
// and remembers what the component asked of it.
//
// It keeps the host's contract: UnReceive waits for running callbacks of the type, Uninitialize for running send
// completions; after them none begins. Every operation may be called from any thread, also at the same time. The hooks
// are set before the component is started.
#ifndef QMLOGCACHE_TESTS_COMPONENT_TEST_ROUTER_H_
#define QMLOGCACHE_TESTS_COMPONENT_TEST_ROUTER_H_

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugin/compctx/component_context.h"

// The component's answer to one message.
struct Answer {
  int iReplies = 0;  // calls of Reply for it
  uint32_t uRet = 0;
  int64_t i64MsgType = 0;
  std::string strText;
};

// One call of AsynSendEx.
struct SentMessage {
  GUID dest{};
  uint32_t uMsgType = 0;
  std::string strText;
  IMRSendComplete* pComplete = nullptr;
  uint64_t u64DataId = 0;
  uint64_t u64Token = 0;
  uint32_t uTimeoutMs = 0;
};

// One call of AgentGetConnect, and what is answered.
struct ConnectQuery {
  GUID dest{};
  uint32_t uCode = 0;
  std::string strRequest;
  uint32_t uTimeoutMs = 0;
  uint32_t uStatusBefore = 0;
};
struct ConnectAnswer {
  uint32_t uRet = 0;
  uint32_t uStatus = 0;
  std::string strReply;
  bool bReply = true;  // false: the reply buffer stays null
};

class CTestRouter : public IComponentContext {
 public:
  // --- Hooks ---
  // Called on the component's work thread inside AsynSendEx, before the send is kept; its result is the call's.
  std::function<uint32_t(const SentMessage&)> m_pfnOnSend;
  // Called on the work thread inside AgentGetConnect. Without it the query fails.
  std::function<ConnectAnswer(const ConnectQuery&)> m_pfnOnConnect;
  // Result of a registration.
  std::function<uint32_t(uint32_t uMsgType)> m_pfnOnReceive;
  // Called on the thread that delivers a message, with the component's answer, before the answer has left.
  std::function<void(const Answer&)> m_pfnOnReply;
  // Result of Initialize.
  uint32_t m_uInitializeResult = 0;
  // Whether accepted sends are kept for Sent and WaitForSent.
  bool m_bKeepSent = true;

  // --- Producers and the destination ---
  // Delivers a message on the calling thread; none when the type is not registered.
  std::optional<Answer> Deliver(uint32_t uMsgType, const GUID& sender, std::string_view svPayload);
  // The same for a sender that expects no answer; false when the type is not registered.
  bool DeliverWithoutAnswer(uint32_t uMsgType, const GUID& sender, std::string_view svPayload);
  std::optional<Answer> DeliverResult(uint64_t u64DataId, uint32_t uResult);
  std::optional<Answer> DeliverConnect();
  // Runs the send's completion on the calling thread; false after Uninitialize.
  bool Complete(const SentMessage& sent, int iRetReply);

  // --- What the component did ---
  // Calls of Initialize, Receive, UnReceive and Uninitialize, each with its argument.
  std::vector<std::string> Calls();
  std::vector<SentMessage> Sent();
  size_t SentCount();
  // Waits until uCount sends were accepted; false when they do not come.
  [[nodiscard]] bool WaitForSent(size_t uCount);
  std::vector<ConnectQuery> Queries();
  // Replies that were handed out and not freed.
  int RepliesOut();
  IMRReceiveComplete* ReceiverOf(uint32_t uMsgType);

  // --- IComponentContext ---
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
  struct Registration {
    IMRReceiveComplete* pReceiver = nullptr;  // null: not registered
    void* pContext = nullptr;
    int iRunning = 0;
  };

  bool Run(uint32_t uMsgType, const GUID& sender, std::string_view svPayload, void* pReplyHandle);

  std::mutex m_mutex;  // guards everything below; never held while the component is called
  std::condition_variable m_changed;
  std::map<uint32_t, Registration> m_mapRegistrations;
  bool m_bOpen = false;  // between Initialize and Uninitialize
  int m_iCompletionsRunning = 0;
  std::vector<std::string> m_vecCalls;
  std::vector<SentMessage> m_vecSent;
  std::vector<ConnectQuery> m_vecQueries;
  int m_iRepliesOut = 0;
  uint64_t m_u64LastToken = 0x70000000;
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_TEST_ROUTER_H_
