// Stop while a call into the host does not come back.
#include <pthread.h>

#include <atomic>
#include <future>

#include "component_fixture.h"
#include "process_state.h"

namespace {

constexpr char kKilled[] = "*qmlogcache CLogCacheMgr::Stop thread need kill";
constexpr char kWorkKilled[] = "*qmlogcache CLogCacheMgr::Stop thread need kill work threadid[";
constexpr char kGivenUp[] = "**qmlogcache CLogCacheMgr::Close";

// A call that never returns; it ends only when its thread is cancelled.
class CTrap {
 public:
  CTrap() {
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_cond_init(&m_never, nullptr);
  }
  ~CTrap() {
    pthread_cond_destroy(&m_never);
    pthread_mutex_destroy(&m_mutex);
  }
  CTrap(const CTrap&) = delete;
  CTrap& operator=(const CTrap&) = delete;

  [[noreturn]] void BlockForGood() {
    const CGuard guard(m_mutex);
    m_entered.set_value();
    while (true) {
      pthread_cond_wait(&m_never, &m_mutex);  // a cancellation point
    }
  }
  bool WaitUntilEntered() { return m_entered.get_future().wait_for(kHangGuard) == std::future_status::ready; }

 private:
  class CGuard {
   public:
    explicit CGuard(pthread_mutex_t& mutex) : m_held(mutex) { pthread_mutex_lock(&m_held); }
    ~CGuard() { pthread_mutex_unlock(&m_held); }
    CGuard(const CGuard&) = delete;
    CGuard& operator=(const CGuard&) = delete;

   private:
    pthread_mutex_t& m_held;
  };

  pthread_mutex_t m_mutex{};
  pthread_cond_t m_never{};
  std::promise<void> m_entered;
};

class StopTest : public CComponentTest {
 protected:
  // Makes the sixty seconds that Stop waits for its threads one.
  void ShortenStop() { m_clock.SetMicroSleepDivisor(60); }
  // A life of its own works from end to end.
  void ExpectAWorkingLife() {
    m_clock.Advance(1);
    CTestRouter router;
    CPluginHost host;
    host.BeginLife(&router);
    ASSERT_TRUE(Succeeded(router.DeliverConnect()));
    for (size_t u = 1; u <= 3; ++u) {
      ASSERT_TRUE(Succeeded(router.Deliver(10203, kProducer, "after")));
      ASSERT_TRUE(router.WaitForSent(u));
      EXPECT_TRUE(Succeeded(router.DeliverResult(router.Sent().back().u64DataId, 0)));
    }
  }
};

TEST_F(StopTest, WaitsForAConnectQueryThatComesBack) {
  m_clock.SetMicroSleepDivisor(1);  // a stop waits a whole minute
  std::promise<void> entered;
  std::promise<void> release;
  m_router.m_pfnOnConnect = [&](const ConnectQuery&) {
    entered.set_value();
    release.get_future().wait();
    return ConnectAnswer{0, 0, "{\"onlineflag\":\"1\"}"};
  };
  BeginLife();
  ASSERT_EQ(entered.get_future().wait_for(kHangGuard), std::future_status::ready);
  std::thread stopping([&] { m_host.Stop(); });
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache CLogCacheMgr::SaveCacheToDb End"));
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::Stop End"), 0u);
  release.set_value();
  stopping.join();
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::WorkThread End"), 1u);
  EXPECT_EQ(m_log.Count(kKilled), 0u);
  EXPECT_EQ(m_router.RepliesOut(), 0);
  EXPECT_EQ(m_router.Calls().back(), "Uninitialize");
}

TEST_F(StopTest, CancelsAConnectQueryThatNeverComesBack) {
  CTrap trap;
  m_router.m_pfnOnConnect = [&](const ConnectQuery&) -> ConnectAnswer { trap.BlockForGood(); };
  ShortenStop();
  BeginLife();
  FileRecord();
  ASSERT_TRUE(trap.WaitUntilEntered());
  EXPECT_EQ(m_host.Stop(), 0);
  EXPECT_EQ(m_log.Count(kWorkKilled), 1u);
  EXPECT_EQ(m_router.Calls().back(), "Uninitialize");
  EXPECT_EQ(m_host.Uninitialize(), 0);
  EXPECT_EQ(m_log.Count(kGivenUp), 0u);
  EXPECT_TRUE(WaitForThreads("logcachework", 0));
  ExpectAWorkingLife();
}

TEST_F(StopTest, CancelsASendThatNeverComesBack) {
  CTrap trap;
  m_router.m_pfnOnSend = [&](const SentMessage&) -> uint32_t { trap.BlockForGood(); };
  ShortenStop();
  BeginConnectedLife();
  FileRecord();
  FileRecord();
  ASSERT_TRUE(trap.WaitUntilEntered());
  FileRecord();  // no lock is held while the send blocks
  EXPECT_EQ(m_host.Stop(), 0);
  EXPECT_EQ(m_log.Count(kWorkKilled), 1u);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCachePluginObj::Stop End Stop OK"), 1u);
  EXPECT_EQ(m_host.Uninitialize(), 0);
  EXPECT_EQ(m_log.Count(kGivenUp), 0u);
  EXPECT_TRUE(WaitForThreads("logcachework", 0));
  EXPECT_TRUE(WaitForThreads("logcachetimer", 0));
  EXPECT_EQ(m_router.SentCount(), 0u);
  ExpectAWorkingLife();
}

TEST_F(StopTest, ASettlementIsTakenWhileTheRecordsSendNeverComesBack) {
  CTrap trap;
  std::atomic<uint64_t> u64DataId{0};
  m_router.m_pfnOnSend = [&](const SentMessage& sent) -> uint32_t {
    u64DataId = sent.u64DataId;
    trap.BlockForGood();
  };
  ShortenStop();
  BeginConnectedLife();
  FileRecord();
  ASSERT_TRUE(trap.WaitUntilEntered());
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(u64DataId, 0)));  // frees the record; the send still reads it
  EXPECT_TRUE(Failed(m_router.DeliverResult(u64DataId, 0), kWireUnknownDataId));
  m_host.EndLife();
  EXPECT_EQ(m_log.Count(kWorkKilled), 1u);
  EXPECT_EQ(m_log.Count(kGivenUp), 0u);
  ExpectAWorkingLife();
}

TEST_F(StopTest, AfterACancelTheSameManagerStartsAgain) {
  CTrap trap;
  std::atomic<bool> bBlock{true};
  m_router.m_pfnOnSend = [&](const SentMessage&) -> uint32_t {
    if (bBlock.exchange(false)) {
      trap.BlockForGood();
    }
    return 0;
  };
  ShortenStop();
  BeginConnectedLife();
  FileRecord(10102, "stuck");
  ASSERT_TRUE(trap.WaitUntilEntered());
  FileRecord(10102, "waiting");
  m_host.Stop();
  EXPECT_EQ(m_log.Count(kWorkKilled), 1u);
  m_clock.SetMicroSleepDivisor(1);  // the next stop waits for a thread that does end
  m_host.Start();
  FileRecord(10102, "new");
  ASSERT_TRUE(m_router.WaitForSent(2));
  const std::vector<SentMessage> vecSent = m_router.Sent();
  EXPECT_NE(vecSent[0].strText.find("<msg=waiting>"), std::string::npos);
  EXPECT_NE(vecSent[1].strText.find("<msg=new>"), std::string::npos);
  m_host.EndLife();
  EXPECT_EQ(m_log.Count(kWorkKilled), 1u);
  EXPECT_EQ(m_log.Count(kGivenUp), 0u);
}

TEST_F(StopTest, EndsThreadsThatHaveNotBegunYet) {
  constexpr int kLives = 50;
  for (int i = 0; i < kLives; ++i) {
    BeginLife();
    m_host.EndLife();
  }
  EXPECT_EQ(m_log.Count(kKilled), 0u);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::WorkThread End"), static_cast<size_t>(kLives));
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::TimerThread End"), static_cast<size_t>(kLives));
}

}  // namespace
