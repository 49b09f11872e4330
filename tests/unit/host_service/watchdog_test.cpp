// The watchdog against the host's real loops: each is held up on purpose, in the host's own code and in code that is
// not the host's.
#include "host/service/watchdog.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <csignal>
#include <optional>

#include "host/ingress/ingress_server.h"
#include "host/link/http/http_driver.h"
#include "host/link/nats/nats_driver.h"
#include "host/link/result_queue.h"
#include "host/link/server_link.h"
#include "host/router/completion_lane.h"
#include "host/router/deadline_timer.h"
#include "host/service/loop.h"
#include "host/signal_thread.h"
#include "host/status/status_server.h"
#include "tests/unit/host_ingress/fake_router.h"
#include "tests/unit/host_ingress/test_producer.h"
#include "tests/unit/host_link/link_test_support.h"

namespace {

// Short, so that the tests are; nothing depends on how long it is.
constexpr std::chrono::milliseconds kPeriod{20};
constexpr char kAgentId[] = "0f8fad5b-d9cb-469f-a165-70867728950e";

// Holds up whoever passes, until it is opened.
class CBarrier {
 public:
  ~CBarrier() { Open(); }
  void Pass() {
    std::unique_lock lock(m_lock);
    ++m_uArrived;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_bOpen; });
  }
  void Open() {
    const std::lock_guard lock(m_lock);
    m_bOpen = true;
    m_changed.notify_all();
  }
  [[nodiscard]] bool AwaitArrival(unsigned int uCount = 1) {
    std::unique_lock lock(m_lock);
    return m_changed.wait_for(lock, kHangGuard, [&] { return m_uArrived >= uCount; });
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  unsigned int m_uArrived = 0;
  bool m_bOpen = false;
};

// A watchdog, and what it said.
class CWatched {
 public:
  [[nodiscard]] bool AwaitFeeds(unsigned int uMore) {
    std::unique_lock lock(m_lock);
    const unsigned int uGoal = m_uFeeds + uMore;
    return m_changed.wait_for(lock, kHangGuard, [&] { return m_uFeeds >= uGoal; });
  }
  // Two rounds that fed nobody and named these loops, one after the other, from now on.
  [[nodiscard]] bool AwaitStandstill(const std::string& strLoops) {
    std::unique_lock lock(m_lock);
    m_uStuck = 0;
    const unsigned int uFeeds = m_uFeeds;
    return m_changed.wait_for(lock, kHangGuard, [&] { return m_uStuck >= 2; }) && m_uFeeds <= uFeeds + 1 &&
           m_strStuck == strLoops;
  }

 private:
  std::mutex m_lock;  // guards the three below the condition
  std::condition_variable m_changed;
  unsigned int m_uFeeds = 0;
  unsigned int m_uStuck = 0;
  std::string m_strStuck;
  CWatchdog m_watchdog{kPeriod,
                       [this] {
                         const std::lock_guard lock(m_lock);
                         ++m_uFeeds;
                         m_changed.notify_all();
                       },
                       [this](const std::string& strLoops) {
                         const std::lock_guard lock(m_lock);
                         m_strStuck = strLoops;
                         ++m_uStuck;
                         m_changed.notify_all();
                       }};
};

void ExpectStandstill(CBarrier& barrier, const std::string& strLoops) {
  ASSERT_TRUE(barrier.AwaitArrival());
  CWatched watched;
  EXPECT_TRUE(watched.AwaitStandstill(strLoops));
  barrier.Open();
  EXPECT_TRUE(watched.AwaitFeeds(1));
}

void ExpectFed(CBarrier& barrier) {
  ASSERT_TRUE(barrier.AwaitArrival());
  CWatched watched;
  EXPECT_TRUE(watched.AwaitFeeds(3));
  barrier.Open();
}

LaneTicket MakeItem() {
  LaneTicket ticket;
  ticket.emplace_back(BroadcastItem{});
  return ticket;
}

// Says what the driver calls: that it is up, or that it is down.
class CHoldingEvents final : public ILinkEvents {
 public:
  explicit CHoldingEvents(CBarrier& barrier) : m_barrier(barrier) {}
  void OnOutcome(const std::shared_ptr<LinkRecord>&, uint32_t) override {}
  void OnGivenBack(std::vector<std::shared_ptr<LinkRecord>>) override {}
  void OnUp() override { m_barrier.Pass(); }
  void OnDown(const std::string&) override { m_barrier.Pass(); }

 private:
  CBarrier& m_barrier;
};

void ExpectDriverStandstill(std::unique_ptr<ILinkDriver> pDriver, const std::string& strLoop) {
  CBarrier barrier;
  CHoldingEvents events(barrier);
  std::string strError;
  ASSERT_TRUE(pDriver->Start(&events, strError)) << strError;
  ExpectStandstill(barrier, strLoop);
  pDriver->Stop();
}

HttpDriverOptions UnreachableHttp() {
  HttpDriverOptions options;
  options.strUrl = "http://127.0.0.1:1/";
  options.strAgentId = kAgentId;
  return options;
}

NatsDriverOptions UnreachableNats() {
  NatsDriverOptions options;
  options.strServers = "nats://127.0.0.1:1";
  options.strStream = "records";
  options.strSubject = "records";
  options.strAgentId = kAgentId;
  return options;
}

TEST(WatchdogTest, FeedsWhenThereIsNoLoop) {
  CWatched watched;
  EXPECT_TRUE(watched.AwaitFeeds(3));
}

TEST(WatchdogTest, FeedsWhileEveryLoopWaitsForWork) {
  const CTestDirectory directory;
  CCompletionLane lane(3, [](LaneItem&) {});
  CDeadlineTimer timer([](MonotonicMs) { return kNoDeadline; });
  CResultQueue results([](const LinkResult&) { return 0; });
  std::string strError;
  ASSERT_TRUE(results.Start(strError)) << strError;
  CFakeRouter router;
  IngressOptions options;
  options.strSocketPath = directory.Path("in.sock");
  const auto pIngress = CreateIngressServer(options, router);
  ASSERT_TRUE(pIngress->Start(strError)) << strError;
  CBarrier open;
  open.Open();
  CHoldingEvents events(open);
  const auto pFile = CreateFileDriver({directory.Path("records"), false});
  const auto pHttp = CreateHttpDriver(UnreachableHttp());
  const auto pNats = CreateNatsDriver(UnreachableNats());
  for (ILinkDriver* pDriver : {pFile.get(), pHttp.get(), pNats.get()}) {
    ASSERT_TRUE(pDriver->Start(&events, strError)) << strError;
  }
  const auto pStatus = CreateStatusServer({"127.0.0.1", 0}, {[](std::string_view) { return std::nullopt; }, [] {}});
  ASSERT_TRUE(pStatus->Start(strError)) << strError;
  ASSERT_TRUE(open.AwaitArrival(3));  // the http and nats drivers pause now, the file driver waits for records
  CWatched watched;
  EXPECT_TRUE(watched.AwaitFeeds(5));
  for (ILinkDriver* pDriver : {pFile.get(), pHttp.get(), pNats.get()}) {
    pDriver->Stop();
  }
  pIngress->Stop();
  pStatus->Stop();
  EXPECT_TRUE(watched.AwaitFeeds(2));  // what has been stopped is not waited for
}

TEST(WatchdogTest, FeedsWhileTheFileDriverWaitsForItsDirectory) {
  const CTestDirectory directory;
  CBarrier open;
  open.Open();
  CHoldingEvents events(open);
  const auto pDriver = CreateFileDriver({directory.Path("missing/records"), false});
  std::string strError;
  ASSERT_TRUE(pDriver->Start(&events, strError)) << strError;
  ASSERT_TRUE(open.AwaitArrival());
  CWatched watched;
  EXPECT_TRUE(watched.AwaitFeeds(5));
  pDriver->Stop();
}

TEST(WatchdogTest, NamesALaneThatStandsStill) {
  CBarrier barrier;
  CCompletionLane lane(1, [&](LaneItem&) { barrier.Pass(); });
  ASSERT_TRUE(lane.Put(MakeItem()));
  ExpectStandstill(barrier, "qmhost-lane");
}

TEST(WatchdogTest, DoesNotTakeAComponentsCallForALaneThatStandsStill) {
  CBarrier barrier;
  CCompletionLane lane(1, [&](LaneItem&) {
    const CForeignCode foreign;
    barrier.Pass();
  });
  ASSERT_TRUE(lane.Put(MakeItem()));
  ExpectFed(barrier);
}

TEST(WatchdogTest, NamesALaneThatStandsStillInTheHostsCodeInsideACall) {
  CBarrier barrier;
  CCompletionLane lane(1, [&](LaneItem&) {
    const CForeignCode foreign;
    const COwnCode own;
    barrier.Pass();
  });
  ASSERT_TRUE(lane.Put(MakeItem()));
  ExpectStandstill(barrier, "qmhost-lane");
}

TEST(WatchdogTest, ALaneOfSeveralThreadsTurnsAsLongAsOneOfThemDoes) {
  CBarrier barrier;
  CCompletionLane lane(2, [&](LaneItem&) { barrier.Pass(); });
  ASSERT_TRUE(lane.Put(MakeItem()));
  ASSERT_TRUE(barrier.AwaitArrival(1));
  CWatched watched;
  EXPECT_TRUE(watched.AwaitFeeds(3));
  ASSERT_TRUE(lane.Put(MakeItem()));
  ASSERT_TRUE(barrier.AwaitArrival(2));
  EXPECT_TRUE(watched.AwaitStandstill("qmhost-lane"));
  barrier.Open();
  EXPECT_TRUE(watched.AwaitFeeds(1));
}

TEST(WatchdogTest, NamesATimerThatStandsStill) {
  CBarrier barrier;
  CDeadlineTimer timer([&](MonotonicMs) {
    barrier.Pass();
    return kNoDeadline;
  });
  timer.Announce(CDeadlineTimer::Now());
  ExpectStandstill(barrier, "qmhost-timer");
}

TEST(WatchdogTest, NamesAResultQueueThatStandsStill) {
  CBarrier barrier;
  CResultQueue results([&](const LinkResult&) {
    barrier.Pass();
    return 0;
  });
  std::string strError;
  ASSERT_TRUE(results.Start(strError)) << strError;
  ASSERT_TRUE(results.Keep({}));
  ExpectStandstill(barrier, "qmhost-result");
}

TEST(WatchdogTest, NamesDriversThatStandStill) {
  const CTestDirectory directory;
  ExpectDriverStandstill(CreateFileDriver({directory.Path("records"), false}), "qmhost-file");
  ExpectDriverStandstill(CreateHttpDriver(UnreachableHttp()), "qmhost-http");
  ExpectDriverStandstill(CreateNatsDriver(UnreachableNats()), "qmhost-nats");
}

TEST(WatchdogTest, NamesAStatusThatStandsStill) {
  CBarrier barrier;
  const auto pStatus =
      CreateStatusServer({"127.0.0.1", 0}, {[](std::string_view) { return std::nullopt; }, [&] { barrier.Pass(); }});
  std::string strError;
  ASSERT_TRUE(pStatus->Start(strError)) << strError;
  ExpectStandstill(barrier, "qmhost-status");
}

// The ingress with every thread held up in the router.
void HoldIngress(bool bForeign, const std::function<void(CBarrier&)>& fnExpect) {
  const CTestDirectory directory;
  CBarrier barrier;
  CFakeRouter router([&](const Delivery& delivery) {
    std::optional<CForeignCode> foreign;
    if (bForeign) {
      foreign.emplace();
    }
    barrier.Pass();
    delivery.Reply();
    return 0U;
  });
  IngressOptions options;
  options.strSocketPath = directory.Path("in.sock");
  const auto pIngress = CreateIngressServer(options, router);
  std::string strError;
  ASSERT_TRUE(pIngress->Start(strError)) << strError;
  CTestProducer first(options.strSocketPath);
  CTestProducer second(options.strSocketPath);
  ASSERT_TRUE(first.SendMessage(1, "x"));
  ASSERT_TRUE(second.SendMessage(1, "x"));
  ASSERT_TRUE(barrier.AwaitArrival(options.uThreads));
  fnExpect(barrier);
}

TEST(WatchdogTest, NamesAnIngressThatStandsStill) {
  HoldIngress(false, [](CBarrier& barrier) { ExpectStandstill(barrier, "qmhost-intake"); });
}

TEST(WatchdogTest, DoesNotTakeComponentsCallsForAnIngressThatStandsStill) {
  HoldIngress(true, ExpectFed);
}

TEST(WatchdogTest, NamesAMainThreadThatDoesNotWaitForSignals) {
  CSignalThread signals;
  // The watchdog does not wait for a loop whose thread is not there yet.
  const auto end = std::chrono::steady_clock::now() + kHangGuard;
  do {
    CLoop::AskAll();
  } while (CLoop::WakeLate().empty() && std::chrono::steady_clock::now() < end);
  {
    CWatched watched;
    EXPECT_TRUE(watched.AwaitStandstill("qmhost-signal or main"));
  }
  std::optional<HostEvent> event;
  std::thread mainThread([&] { event = signals.Wait(); });
  CWatched watched;
  EXPECT_TRUE(watched.AwaitFeeds(3));
  kill(getpid(), SIGHUP);
  mainThread.join();
  EXPECT_EQ(event, HostEvent::Reload);
}

}  // namespace
