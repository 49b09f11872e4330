// A router of one component context that records what the server link does with it.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_LINK_FAKE_ROUTER_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_LINK_FAKE_ROUTER_H_

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/link/link_driver.h"
#include "host/protocol/host_status.h"
#include "host/router/router.h"

// One thing the link did, in words: "reply 0 success", "result 7 0", "broadcast 1000".
using FakeJournal = std::vector<std::string>;

class CFakeContext final : public IHostContext {
 public:
  uint32_t Initialize(const GUID& stComponentID) override {
    m_guid = stComponentID;
    Note("initialize");
    return m_uInitializeStatus;
  }
  uint32_t Uninitialize() override { return Note("uninitialize"); }
  uint32_t Reserved4() override { return kHostBadArgument; }
  uint32_t AgentGetConnect(const GUID*, uint32_t, const char*, uint32_t, uint32_t*, void**, uint32_t*,
                           uint32_t) override {
    return kHostBadArgument;
  }
  uint32_t FreeReply(void*) override { return kHostBadArgument; }
  uint32_t Reserved7() override { return kHostBadArgument; }
  uint32_t Reserved8() override { return kHostBadArgument; }
  uint32_t Receive(uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext) override {
    m_pReceiver = pReceiver;
    m_pUserContext = pContext;
    return Note("receive " + std::to_string(uMsgType));
  }
  uint32_t UnReceive(uint32_t uMsgType) override { return Note("unreceive " + std::to_string(uMsgType)); }
  uint32_t Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength, void* pReplyHandle) override {
    char acText[128];
    snprintf(acText, sizeof(acText), "reply %x %.*s", static_cast<uint32_t>(iRet), static_cast<int>(uLength), pReply);
    Note(acText);
    const std::lock_guard lock(m_mutex);
    m_i64ReplyType = i64MsgType;
    m_pReplyHandle = pReplyHandle;
    return m_uReplyStatus;
  }
  uint32_t AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                      IMRSendComplete* pComplete, uint64_t, uint64_t*, uint32_t) override {
    const std::lock_guard lock(m_mutex);
    m_strLastPayload.assign(reinterpret_cast<const char*>(pData), uLength);
    m_uLastType = uMsgType;
    m_lastDest = *pDest;
    m_bLastHadCompletion = pComplete != nullptr;
    uint32_t uResult = 0;
    uint64_t u64DataId = 0;
    std::memcpy(&uResult, pData + 4, 4);
    std::memcpy(&u64DataId, pData + 8, 8);
    char acText[64];
    snprintf(acText, sizeof(acText), "result %llx %x", static_cast<unsigned long long>(u64DataId), uResult);
    m_journal.emplace_back(acText);
    m_noted.notify_all();
    return m_uSendStatus;
  }
  void SetRequestHandler(IRequestHandler* pHandler) override {
    m_pHandler = pHandler;
    Note(pHandler != nullptr ? "handler set" : "handler removed");
  }
  uint32_t Broadcast(uint32_t uMsgType, std::string_view svPayload) override {
    return Note("broadcast " + std::to_string(uMsgType) + (svPayload.empty() ? " empty" : ""));
  }

  // What a component's send brings to the link.
  void Arrive(const std::string& strText, const GUID& sender = {7, 8, 9, {1, 2, 3, 4, 5, 6, 7, 8}},
              bool bWithHandle = true) {
    m_pReceiver->ReceiveCallback(sender, 20002, reinterpret_cast<const unsigned char*>(strText.data()),
                                 static_cast<unsigned int>(strText.size()), bWithHandle ? &m_iHandle : nullptr,
                                 m_pUserContext);
  }
  // As AsynSendEx answers from now on, with an empty journal; any thread.
  void AnswerSends(uint32_t uStatus) {
    const std::lock_guard lock(m_mutex);
    m_uSendStatus = uStatus;
    m_journal.clear();
  }
  // Until so many sends were made since the journal was last taken, which must hold nothing else. False when they do
  // not come.
  bool WaitForSends(size_t uCount) {
    std::unique_lock lock(m_mutex);
    return m_noted.wait_for(lock, std::chrono::seconds(60), [&] { return m_journal.size() >= uCount; });
  }
  FakeJournal TakeJournal() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_journal, {});
  }
  uint32_t Note(const std::string& strWhat) {
    const std::lock_guard lock(m_mutex);
    m_journal.push_back(strWhat);
    return kHostOk;
  }

  GUID m_guid{};
  IMRReceiveComplete* m_pReceiver = nullptr;
  void* m_pUserContext = nullptr;
  IRequestHandler* m_pHandler = nullptr;
  uint32_t m_uInitializeStatus = kHostOk;
  uint32_t m_uReplyStatus = kHostOk;
  uint32_t m_uSendStatus = kHostOk;
  int m_iHandle = 0;

  std::mutex m_mutex;  // guards the rest
  std::condition_variable m_noted;
  FakeJournal m_journal;
  int64_t m_i64ReplyType = 0;
  void* m_pReplyHandle = nullptr;
  std::string m_strLastPayload;
  uint32_t m_uLastType = 0;
  GUID m_lastDest{};
  bool m_bLastHadCompletion = false;
};

class CFakeRouter final : public IRouter {
 public:
  std::shared_ptr<IHostContext> CreateContext() override { return m_pContext; }
  uint32_t DeliverFromProducer(const GUID&, uint32_t, const uint8_t*, uint32_t, const std::shared_ptr<IReplySink>&,
                               uint64_t) override {
    return kHostNoReceiver;
  }
  void StopIntake() override {}
  IntakeCounts GetIntakeCounts() const override { return {}; }

  std::shared_ptr<CFakeContext> m_pContext = std::make_shared<CFakeContext>();
};

// A driver that does what the test says. Deliveries go into the context's journal: "deliver 7".
class CFakeDriver final : public ILinkDriver {
 public:
  explicit CFakeDriver(CFakeContext& context) : m_context(context) {}
  bool Start(ILinkEvents* pEvents, std::string& strError) override {
    m_pEvents = pEvents;
    strError = m_strStartError;
    m_context.Note("driver start");
    return m_strStartError.empty();
  }
  void Stop() override {
    m_context.Note("driver stop");
    if (m_fnOnStop) {
      m_fnOnStop();
    }
  }
  void Deliver(std::shared_ptr<LinkRecord> pRecord) override {
    char acText[64];
    snprintf(acText, sizeof(acText), "deliver %llx", static_cast<unsigned long long>(pRecord->tags.u64DataId));
    m_context.Note(acText);
    {
      const std::lock_guard lock(m_mutex);
      m_vecTaken.push_back(pRecord);
    }
    if (m_fnOnDeliver) {
      m_fnOnDeliver(pRecord);
    }
  }
  void Reopen() override { m_context.Note("reopen"); }
  std::string Describe() const override { return "fake"; }
  std::vector<std::shared_ptr<LinkRecord>> Taken() {
    const std::lock_guard lock(m_mutex);
    return m_vecTaken;
  }
  std::vector<std::shared_ptr<LinkRecord>> TakeAll() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_vecTaken, {});
  }

  ILinkEvents* m_pEvents = nullptr;
  std::string m_strStartError;
  std::function<void(const std::shared_ptr<LinkRecord>&)> m_fnOnDeliver;
  std::function<void()> m_fnOnStop;

 private:
  CFakeContext& m_context;
  std::mutex m_mutex;  // guards the next
  std::vector<std::shared_ptr<LinkRecord>> m_vecTaken;
};

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_LINK_FAKE_ROUTER_H_
