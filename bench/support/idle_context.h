// A component's context that does nothing and says that all went well. The benchmarks' contexts do what they need.
#ifndef QMLOGCACHE_BENCH_SUPPORT_IDLE_CONTEXT_H_
#define QMLOGCACHE_BENCH_SUPPORT_IDLE_CONTEXT_H_

#include "plugin/compctx/component_context.h"

class CIdleContext : public IComponentContext {
 public:
  uint32_t Initialize(const GUID& /*stComponentID*/) override { return 0; }
  uint32_t Uninitialize() override { return 0; }
  uint32_t Reserved4() override { return 0; }
  uint32_t AgentGetConnect(const GUID* /*pDest*/, uint32_t /*uCode*/, const char* /*pRequest*/,
                           uint32_t /*uRequestLength*/, uint32_t* puStatus, void** /*ppReply*/,
                           uint32_t* /*puReplyLength*/, uint32_t /*uTimeoutMs*/) override {
    *puStatus = 0;
    return 0;
  }
  uint32_t FreeReply(void* /*pReply*/) override { return 0; }
  uint32_t Reserved7() override { return 0; }
  uint32_t Reserved8() override { return 0; }
  uint32_t Receive(uint32_t /*uMsgType*/, IMRReceiveComplete* /*pReceiver*/, void* /*pContext*/) override { return 0; }
  uint32_t UnReceive(uint32_t /*uMsgType*/) override { return 0; }
  uint32_t Reply(int32_t /*iRet*/, int64_t /*i64MsgType*/, const char* /*pReply*/, uint32_t /*uLength*/,
                 void* /*pReplyHandle*/) override {
    return 0;
  }
  uint32_t AsynSendEx(const GUID* /*pDest*/, uint32_t /*uMsgType*/, const uint8_t* /*pData*/, uint32_t /*uLength*/,
                      IMRSendComplete* /*pComplete*/, uint64_t /*u64UserValue*/, uint64_t* /*pu64Act*/,
                      uint32_t /*uTimeoutMs*/) override {
    return 0;
  }
};

#endif  // QMLOGCACHE_BENCH_SUPPORT_IDLE_CONTEXT_H_
