// The component as a host loads it: libqmlogcache.so, and a context whose router is the benchmark itself.
//
// One life at a time in a process, in a CBenchInstallation.
#ifndef QMLOGCACHE_BENCH_SUPPORT_LOADED_COMPONENT_H_
#define QMLOGCACHE_BENCH_SUPPORT_LOADED_COMPONENT_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "bench/support/idle_context.h"
#include "bench/support/installation.h"
#include "plugin/compctx/plugin_api.h"

// Takes what the component sends, on its work thread. The record is settled by Settle, from any thread, also at once.
class ISendSink {
 public:
  virtual ~ISendSink() = default;
  // 0 takes the record; anything else refuses the send, and the component drops the record.
  virtual uint32_t OnSend(uint64_t u64DataId, std::string_view svTaggedText) = 0;
};

// Takes everything and does nothing: what becomes of a record is then not measured.
class CNoSink : public ISendSink {
 public:
  uint32_t OnSend(uint64_t /*u64DataId*/, std::string_view /*svTaggedText*/) override { return 0; }
};

// A life of the component: Initialize, SetCtx and Start, then Stop and Uninitialize.
class CLoadedComponent : private CIdleContext {
 public:
  explicit CLoadedComponent(ISendSink& sink);
  ~CLoadedComponent() override;  // ends the life if that has not been done
  CLoadedComponent(const CLoadedComponent&) = delete;
  CLoadedComponent& operator=(const CLoadedComponent&) = delete;

  // Tells the component that it is connected, so that it begins to send.
  void Connect();
  // True when the component has taken the message. The sender's GUID differs with u32Sender.
  bool Send(uint32_t u32Sender, uint32_t uMsgType, std::string_view svData);
  // Gives the component the result of a record.
  void Settle(uint64_t u64DataId, uint32_t uResult);
  // Stop, with its save.
  void Stop();

 private:
  uint32_t AgentGetConnect(const GUID* pDest, uint32_t uCode, const char* pRequest, uint32_t uRequestLength,
                           uint32_t* puStatus, void** ppReply, uint32_t* puReplyLength, uint32_t uTimeoutMs) override;
  uint32_t Receive(uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) override;
  uint32_t Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength, void* pReplyHandle) override;
  uint32_t AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                      IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                      uint32_t uTimeoutMs) override;

  ISendSink& m_sink;
  _PluginObjFuncTable* m_pObject;
  std::atomic<IMRReceiveComplete*> m_pReceiver{nullptr};
  std::atomic<uint64_t> m_u64LastAct{0};
  bool m_bStarted = true;
};

#endif  // QMLOGCACHE_BENCH_SUPPORT_LOADED_COMPONENT_H_
