// A new connection that is asked for while the old one is being lost.
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/link/nats/nats_driver.h"
#include "scripted_nats_server.h"
#include "tests/unit/host_link/link_test_support.h"
#include "tests/unit/host_link/log_capture.h"

namespace {

constexpr uint64_t kHeld = 99;

// Counts the link's ups and downs.
class CUpsAndDowns final : public ILinkEvents {
 public:
  void OnOutcome(const std::shared_ptr<LinkRecord>& /*pRecord*/, uint32_t /*uResult*/) override {}
  void OnGivenBack(std::vector<std::shared_ptr<LinkRecord>> /*vecRecords*/) override {}
  void OnUp() override { Count(m_uUps); }
  void OnDown(const std::string& /*strReason*/) override { Count(m_uDowns); }

  // False when they do not come within the hang guard.
  bool WaitForUps(size_t uCount) { return Wait(m_uUps, uCount); }
  bool WaitForDowns(size_t uCount) { return Wait(m_uDowns, uCount); }

 private:
  void Count(size_t& uCounter) {
    {
      const std::lock_guard lock(m_mutex);
      ++uCounter;
    }
    m_changed.notify_all();
  }
  bool Wait(const size_t& uCounter, size_t uCount) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, kHangGuard, [&] { return uCounter >= uCount; });
  }
  std::mutex m_mutex;  // guards the counters
  std::condition_variable m_changed;
  size_t m_uUps = 0;
  size_t m_uDowns = 0;
};

// A server that closes the connection over each record, over the one that is held when it is released.
class NatsReopenTest : public ::testing::Test {
 protected:
  NatsReopenTest() {
    ClearLog();
    m_options.strServers = m_server.Url();
    m_options.strStream = "s";
    m_options.strSubject = "p";
    m_options.strAgentId = "0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11";
    m_options.uLongestBackOffMs = 3600000;
  }
  ~NatsReopenTest() override {
    if (!std::exchange(m_bReleased, true)) {
      m_release.set_value();
    }
  }

  std::string Answer(uint64_t u64DataId) {
    if (u64DataId == kHeld) {
      m_arrived.set_value();
      m_released.wait();
    }
    return {};
  }

  std::promise<void> m_arrived;
  std::promise<void> m_release;
  const std::shared_future<void> m_released = m_release.get_future().share();
  bool m_bReleased = false;
  const CScriptedNatsServer m_server{100000, [this](uint64_t u64DataId) { return Answer(u64DataId); }};
  NatsDriverOptions m_options;
};

TEST_F(NatsReopenTest, AConnectionThatIsLostBeforeItIsRenewedIsMadeAnewAllTheSame) {
  constexpr size_t kOutages = 5;
  // With it the last pause would be 117 s of the 128 that the ceiling has reached by then.
  m_options.u64Seed = 80;
  CUpsAndDowns events;
  const std::unique_ptr<ILinkDriver> pDriver = CreateNatsDriver(m_options);
  std::string strError;
  ASSERT_TRUE(pDriver->Start(&events, strError)) << strError;
  ASSERT_TRUE(events.WaitForUps(1));
  for (size_t i = 1; i <= kOutages; ++i) {
    pDriver->Deliver(MakeRecord(i, "x"));
    ASSERT_TRUE(events.WaitForDowns(i));
    pDriver->Reopen();
    ASSERT_TRUE(events.WaitForUps(i + 1));
  }
  pDriver->Deliver(MakeRecord(kHeld, "x"));
  ASSERT_EQ(m_arrived.get_future().wait_for(kHangGuard), std::future_status::ready);
  pDriver->Reopen();
  m_bReleased = true;
  m_release.set_value();
  EXPECT_TRUE(events.WaitForDowns(kOutages + 1));
  EXPECT_TRUE(events.WaitForUps(kOutages + 2));
  pDriver->Stop();
}

}  // namespace
