// One component's context: checks the arguments that come over the binary interface and hands them to the router.
#ifndef QMLOGCACHE_HOST_ROUTER_HOST_CONTEXT_H_
#define QMLOGCACHE_HOST_ROUTER_HOST_CONTEXT_H_

#include <memory>
#include <utility>

#include "host/router/router_core.h"

// Unknown, already answered and foreign reply handles are refused with kHostBadArgument, null arguments too. Before
// Initialize, what needs a name is refused with kHostBadArgument, after Uninitialize with kHostStopping.
class CHostContext : public IHostContext {
 public:
  explicit CHostContext(std::shared_ptr<CRouterCore> pCore) : m_pCore(std::move(pCore)) {}
  // Ends the session if the component has not.
  ~CHostContext() override;
  CHostContext(const CHostContext&) = delete;
  CHostContext& operator=(const CHostContext&) = delete;

  // kHostAlreadyTaken also for a context that has a name already; kHostBadArgument for the zero GUID.
  uint32_t Initialize(const GUID& stComponentID) override;
  uint32_t Uninitialize() override;
  uint32_t Reserved4() override;
  // The request is handled on the calling thread, so uTimeoutMs has nothing to bound; it is not read.
  uint32_t AgentGetConnect(const GUID* pDest, uint32_t uCode, const char* pRequest, uint32_t uRequestLength,
                           uint32_t* puStatus, void** ppReply, uint32_t* puReplyLength, uint32_t uTimeoutMs) override;
  uint32_t FreeReply(void* pReply) override;
  uint32_t Reserved7() override;
  uint32_t Reserved8() override;
  uint32_t Receive(uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) override;
  uint32_t UnReceive(uint32_t uMsgType) override;
  // i64MsgType is not read: the handle names the message.
  uint32_t Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength, void* pReplyHandle) override;
  uint32_t AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                      IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                      uint32_t uTimeoutMs) override;
  void SetRequestHandler(IRequestHandler* pHandler) override;
  uint32_t Broadcast(uint32_t uMsgType, std::string_view svPayload) override;

 private:
  const std::shared_ptr<CRouterCore> m_pCore;
  ContextState m_State;  // guarded by the core's registry
};

#endif  // QMLOGCACHE_HOST_ROUTER_HOST_CONTEXT_H_
