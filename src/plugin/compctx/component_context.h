// The host's component context and the two callback interfaces, as they lie in memory (Itanium C++ ABI). The order of
// the virtual functions is the binary interface; it never changes.
//
// Every operation returns a 32-bit status, 0 for success, and may be called from any thread.
#ifndef QMLOGCACHE_PLUGIN_COMPCTX_COMPONENT_CONTEXT_H_
#define QMLOGCACHE_PLUGIN_COMPCTX_COMPONENT_CONTEXT_H_

#include <cstdint>

#include "plugin/compctx/guid.h"

// Takes inbound messages. Called on the router's threads, several at a time, between Receive and the return of
// UnReceive.
class IMRReceiveComplete {
 public:
  virtual ~IMRReceiveComplete() = default;
  // pData (uiDataLength bytes) is lent for the call. pReplyHandle names the message for Reply, null when the sender
  // expects no answer; pContext is the user context of the registration. Throws nothing.
  virtual void ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                               unsigned int uiDataLength, void* pReplyHandle, void* pContext) = 0;
};

// Takes the outcome of an asynchronous send, once, on a router thread, possibly before AsynSendEx returns.
class IMRSendComplete {
 public:
  virtual ~IMRSendComplete() = default;
  // iRetReply: 0 for success. ui64ACT: the token of the send. pContext: its user value. Throws nothing.
  virtual void SendCallback(int iRetReply, long i64MsgType, const unsigned char* pReply, unsigned int uiLength,
                            unsigned long ui64ACT, void* pContext) = 0;
};

class IComponentContext {
 public:
  virtual ~IComponentContext() = default;                      // positions 0 and 1
  virtual uint32_t Initialize(const GUID& stComponentID) = 0;  // 2: names the component; first call
  virtual uint32_t Uninitialize() = 0;                         // 3: last call; ends send completions
  virtual uint32_t Reserved4() = 0;                            // 4
  // 5: synchronous request to another component; blocks up to uTimeoutMs. *ppReply, if set, goes back with FreeReply.
  virtual uint32_t AgentGetConnect(const GUID* pDest, uint32_t uCode, const char* pRequest, uint32_t uRequestLength,
                                   uint32_t* puStatus, void** ppReply, uint32_t* puReplyLength,
                                   uint32_t uTimeoutMs) = 0;
  virtual uint32_t FreeReply(void* pReply) = 0;  // 6
  virtual uint32_t Reserved7() = 0;              // 7
  virtual uint32_t Reserved8() = 0;              // 8
  // 9: registers the receiver of one message type; pContext comes back with every message.
  virtual uint32_t Receive(uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) = 0;
  // 10: returns when no callback of that type runs any more, one of the caller's own excepted.
  virtual uint32_t UnReceive(uint32_t uMsgType) = 0;
  // 11: answers a message. pReply is lent for the call.
  virtual uint32_t Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength,
                         void* pReplyHandle) = 0;
  // 12: sends to another component. pData is lent for the call; *pu64Act is set before any completion runs. Non-zero:
  // the send was refused and no completion comes. uTimeoutMs: how long an outcome may take.
  virtual uint32_t AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                              IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                              uint32_t uTimeoutMs) = 0;
};

#endif  // QMLOGCACHE_PLUGIN_COMPCTX_COMPONENT_CONTEXT_H_
