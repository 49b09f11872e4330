// Components and sinks for the router's tests.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_ROUTER_ROUTER_FAKES_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_ROUTER_ROUTER_FAKES_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/router/router.h"

inline constexpr GUID kSenderGuid = {0x11111111, 0x1111, 0x1111, {1, 1, 1, 1, 1, 1, 1, 1}};
inline constexpr GUID kDestGuid = {0x22222222, 0x2222, 0x2222, {2, 2, 2, 2, 2, 2, 2, 2}};
inline constexpr GUID kProducerGuid = {0x33333333, 0x3333, 0x3333, {3, 3, 3, 3, 3, 3, 3, 3}};
// Guards against a hang, long enough for a machine under any load.
inline constexpr std::chrono::seconds kHangGuard{60};

// A flag that one thread sets and others wait for.
class CSignal {
 public:
  void Set() {
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_bSet = true;
    m_Changed.notify_all();
  }
  [[nodiscard]] bool Wait() {
    std::unique_lock<std::mutex> guard(m_Lock);
    return m_Changed.wait_for(guard, kHangGuard, [this] { return m_bSet; });
  }
  bool IsSet() {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return m_bSet;
  }

 private:
  std::mutex m_Lock;
  std::condition_variable m_Changed;
  bool m_bSet = false;
};

// Collects what it is given; tests wait for the count they expect.
template <typename TItem>
class CCollector {
 public:
  void Put(TItem item) {
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_vecItems.push_back(std::move(item));
    m_Changed.notify_all();
  }
  [[nodiscard]] bool WaitFor(size_t uCount) {
    std::unique_lock<std::mutex> guard(m_Lock);
    return m_Changed.wait_for(guard, kHangGuard, [&] { return m_vecItems.size() >= uCount; });
  }
  std::vector<TItem> Items() {
    const std::lock_guard<std::mutex> guard(m_Lock);
    return m_vecItems;
  }
  size_t Count() { return Items().size(); }

 private:
  std::mutex m_Lock;
  std::condition_variable m_Changed;
  std::vector<TItem> m_vecItems;
};

struct SeenMessage {
  GUID sender{};
  long i64MsgType = 0;
  std::string strData;
  void* pReplyHandle = nullptr;
  void* pContext = nullptr;
  std::thread::id thread;
};

class CFakeReceiver : public IMRReceiveComplete, public CCollector<SeenMessage> {
 public:
  void ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                       unsigned int uiDataLength, void* pReplyHandle, void* pContext) override {
    const SeenMessage message{
        stComponentID, i64MsgType, std::string(reinterpret_cast<const char*>(pData), uiDataLength),
        pReplyHandle,  pContext,   std::this_thread::get_id()};
    Put(message);
    if (fnThen) {
      fnThen(message);
    }
  }
  std::function<void(const SeenMessage&)> fnThen;  // set before the first message
};

struct SeenCompletion {
  int iRet = 0;
  long i64MsgType = 0;
  std::string strReply;
  unsigned long u64Act = 0;
  uintptr_t uUserValue = 0;
  std::thread::id thread;
};

class CFakeCompletion : public IMRSendComplete, public CCollector<SeenCompletion> {
 public:
  void SendCallback(int iRetReply, long i64MsgType, const unsigned char* pReply, unsigned int uiLength,
                    unsigned long ui64ACT, void* pContext) override {
    const SeenCompletion completion{iRetReply,
                                    i64MsgType,
                                    std::string(reinterpret_cast<const char*>(pReply), uiLength),
                                    ui64ACT,
                                    reinterpret_cast<uintptr_t>(pContext),
                                    std::this_thread::get_id()};
    Put(completion);
    if (fnThen) {
      fnThen(completion);
    }
  }
  std::function<void(const SeenCompletion&)> fnThen;
};

struct SeenReply {
  uint64_t u64Cookie = 0;
  uint32_t uStatus = 0;
  std::string strText;
};

class CFakeSink : public IReplySink, public CCollector<SeenReply> {
 public:
  void OnReply(uint64_t u64Cookie, uint32_t uStatus, std::string_view svText) override {
    Put({u64Cookie, uStatus, std::string(svText)});
  }
};

inline uint32_t Deliver(IRouter& router, uint32_t uMsgType, std::string_view svData,
                        const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie = 0) {
  return router.DeliverFromProducer(kProducerGuid, uMsgType, reinterpret_cast<const uint8_t*>(svData.data()),
                                    static_cast<uint32_t>(svData.size()), pSink, u64Cookie);
}

inline uint32_t Send(IComponentContext& context, const GUID& dest, uint32_t uMsgType, std::string_view svData,
                     IMRSendComplete* pComplete, uint64_t u64UserValue = 0, uint64_t* pu64Act = nullptr,
                     uint32_t uTimeoutMs = 0) {
  return context.AsynSendEx(&dest, uMsgType, reinterpret_cast<const uint8_t*>(svData.data()),
                            static_cast<uint32_t>(svData.size()), pComplete, u64UserValue, pu64Act, uTimeoutMs);
}

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_ROUTER_ROUTER_FAKES_H_
