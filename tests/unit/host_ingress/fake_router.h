// A router whose answers the test decides. Any thread.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_FAKE_ROUTER_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_FAKE_ROUTER_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/router/router.h"

struct Delivery {
  GUID sender{};
  uint32_t uMsgType = 0;
  std::string strPayload;
  std::shared_ptr<IReplySink> pSink;
  uint64_t u64Cookie = 0;

  void Reply(uint32_t uStatus = 0, std::string_view svText = "success") const {
    pSink->OnReply(u64Cookie, uStatus, svText);
  }
};

class CFakeRouter : public IRouter {
 public:
  // Called on the ingress thread; its result is that of DeliverFromProducer. Without one every message is accepted.
  using Handler = std::function<uint32_t(const Delivery&)>;

  CFakeRouter() = default;
  explicit CFakeRouter(Handler fnHandler) : m_fnHandler(std::move(fnHandler)) {}

  std::shared_ptr<IHostContext> CreateContext() override { return nullptr; }
  void StopIntake() override {}
  IntakeCounts GetIntakeCounts() const override { return {}; }

  uint32_t DeliverFromProducer(const GUID& sender, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                               const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie) override {
    const Delivery delivery{sender, uMsgType, std::string(reinterpret_cast<const char*>(pData), uLength), pSink,
                            u64Cookie};
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_vecDeliveries.push_back(delivery);
      m_changed.notify_all();
    }
    if (m_fnHandler) {
      return m_fnHandler(delivery);
    }
    delivery.Reply();
    return 0;
  }

  // Waits until so many messages have come; false after a long time.
  [[nodiscard]] bool WaitForCount(size_t uCount) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_vecDeliveries.size() >= uCount; });
  }
  std::vector<Delivery> Deliveries() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_vecDeliveries;
  }
  void Clear() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_vecDeliveries.clear();
  }

 private:
  const Handler m_fnHandler;
  mutable std::mutex m_mutex;  // guards m_vecDeliveries
  std::condition_variable m_changed;
  std::vector<Delivery> m_vecDeliveries;
};

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_FAKE_ROUTER_H_
