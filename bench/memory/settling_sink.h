// A destination on a thread of its own: takes what is sent, and settles it as delivered in the order of sending. It
// also holds the producer back while too many records are outstanding.
#ifndef QMLOGCACHE_BENCH_MEMORY_SETTLING_SINK_H_
#define QMLOGCACHE_BENCH_MEMORY_SETTLING_SINK_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/support/loaded_component.h"

class CSettlingSink : public ISendSink {
 public:
  using SettleFunction = std::function<void(uint64_t)>;

  ~CSettlingSink() override { End(); }

  void Begin(SettleFunction settle) {
    m_bEnding = false;
    m_u64Settled = 0;
    m_u64WakeAt = 0;
    m_thread = std::thread([this, settle = std::move(settle)] { Run(settle); });
  }
  void End() {
    if (m_thread.joinable()) {
      {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_bEnding = true;
      }
      m_sent.notify_one();
      m_thread.join();
    }
  }

  uint32_t OnSend(uint64_t u64DataId, std::string_view /*svTaggedText*/) override {
    bool bFirst = false;
    {
      const std::lock_guard<std::mutex> guard(m_mutex);
      bFirst = m_vecSent.empty();
      m_vecSent.push_back(u64DataId);
    }
    if (bFirst) {
      m_sent.notify_one();
    }
    return 0;
  }

  // Waits until fewer than uMost of the u64Sent records are unsettled.
  void HoldBack(uint64_t u64Sent, uint64_t u64Most) {
    if (u64Sent - m_u64Settled.load(std::memory_order_relaxed) < u64Most) {
      return;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_u64WakeAt = u64Sent - u64Most / 2;
    m_settled.wait(lock, [&] { return m_u64Settled.load() >= m_u64WakeAt; });
  }
  void WaitUntilSettled(uint64_t u64Sent) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_u64WakeAt = u64Sent;
    m_settled.wait(lock, [&] { return m_u64Settled.load() >= u64Sent; });
  }

 private:
  void Run(const SettleFunction& settle) {
    std::vector<uint64_t> vecSent;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
      m_sent.wait(lock, [&] { return !m_vecSent.empty() || m_bEnding; });
      if (m_vecSent.empty()) {
        return;
      }
      vecSent.clear();
      vecSent.swap(m_vecSent);
      lock.unlock();
      for (const uint64_t u64DataId : vecSent) {
        settle(u64DataId);
      }
      lock.lock();
      m_u64Settled += vecSent.size();
      if (m_u64Settled.load() >= m_u64WakeAt) {
        m_settled.notify_one();
      }
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_sent;
  std::condition_variable m_settled;
  std::vector<uint64_t> m_vecSent;
  uint64_t m_u64WakeAt = 0;
  bool m_bEnding = false;
  std::atomic<uint64_t> m_u64Settled{0};
  std::thread m_thread;
};

#endif  // QMLOGCACHE_BENCH_MEMORY_SETTLING_SINK_H_
