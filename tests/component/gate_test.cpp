// The send gate: the window, single-send mode and its back-off, and what opens it.
#include <thread>

#include "component_fixture.h"

namespace {

constexpr unsigned int kGateWaitMs = 100;
constexpr unsigned int kBackOffStepMs = 1000;
constexpr size_t kWindow = 128;

class GateTest : public CComponentTest {
 protected:
  // The gate was asked again and again and stayed shut.
  void ExpectShutAt(size_t uSent) {
    constexpr uint64_t kTimes = 3;
    ASSERT_TRUE(m_clock.WaitForEventWaits(kGateWaitMs, kTimes));
    EXPECT_EQ(m_router.SentCount(), uSent);
  }
  // The gate has shut for good; gives the sends until then. A record that comes to an idle work thread is still sent on
  // the gate's earlier word, so there may be one more than the mode would allow.
  size_t WaitUntilShut(size_t uSent) {
    EXPECT_TRUE(m_clock.WaitForEventWaits(kGateWaitMs, 1));
    const size_t uNow = m_router.SentCount();
    EXPECT_GE(uNow, uSent);
    EXPECT_LE(uNow, uSent + 1);
    return uNow;
  }
  uint64_t IdOf(size_t uSend) { return m_router.Sent().at(uSend).u64DataId; }
};

TEST_F(GateTest, SendsNothingBeforeTheAgentIsConnected) {
  BeginLife();
  FileRecord();
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache agent is not connected to the server", 2));  // two queries
  EXPECT_EQ(m_router.SentCount(), 0u);
  ASSERT_TRUE(Succeeded(m_router.DeliverConnect()));
  EXPECT_TRUE(m_router.WaitForSent(1));
}

TEST_F(GateTest, AConnectBroadcastStartsSendingWithoutAQuery) {
  m_clock.SetSleepDivisor(1);  // real seconds, of which the first query takes thirty-one
  BeginLife();
  FileRecord();
  ASSERT_TRUE(Succeeded(m_router.DeliverConnect()));
  EXPECT_TRUE(m_router.WaitForSent(1));
  EXPECT_TRUE(m_router.Queries().empty());
}

TEST_F(GateTest, AnEmptyConnectBroadcastConnectsNothing) {
  BeginLife();
  FileRecord();
  EXPECT_TRUE(Failed(m_router.Deliver(1000, kServerLink, ""), kWireEmptyData));
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache agent is not connected to the server"));
  EXPECT_EQ(m_router.SentCount(), 0u);
}

TEST_F(GateTest, HoldsTheWindowAtOneHundredAndTwentyEight) {
  constexpr size_t kRecords = 200;
  BeginConnectedLife();
  for (size_t i = 0; i < kRecords; ++i) {
    FileRecord();
  }
  ASSERT_TRUE(m_router.WaitForSent(kWindow));
  ExpectShutAt(kWindow);
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(77), 0)));
  ASSERT_TRUE(m_router.WaitForSent(kWindow + 1));
  ExpectShutAt(kWindow + 1);
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(3), 0)));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(128), 8)));
  ASSERT_TRUE(m_router.WaitForSent(kWindow + 3));
  ExpectShutAt(kWindow + 3);
}

TEST_F(GateTest, ATransportSuccessOpensNoWindow) {
  BeginConnectedLife();
  for (size_t i = 0; i <= kWindow; ++i) {
    FileRecord();
  }
  ASSERT_TRUE(m_router.WaitForSent(kWindow));
  ASSERT_TRUE(m_router.Complete(m_router.Sent().front(), 0));
  ExpectShutAt(kWindow);
}

TEST_F(GateTest, ARefusedSendTakesNoPlaceInTheWindow) {
  m_router.m_pfnOnSend = [](const SentMessage& sent) {
    return sent.strText.find("<msg=no>") != std::string::npos ? 1U : 0U;
  };
  BeginConnectedLife();
  for (int i = 0; i < 20; ++i) {
    FileRecord(10102, "no");
  }
  for (size_t i = 0; i <= kWindow; ++i) {
    FileRecord();
  }
  ASSERT_TRUE(m_router.WaitForSent(kWindow));
  ExpectShutAt(kWindow);
}

class SingleSendTest : public GateTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(SingleSendTest, OneRecordAtATimeUntilAnotherResult) {
  BeginConnectedLife();
  FileRecord(10103, "first");
  ASSERT_TRUE(m_router.WaitForSent(1));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(0), GetParam())));
  for (int i = 0; i < 5; ++i) {
    FileRecord(10100, "later");
  }
  ASSERT_TRUE(m_router.WaitForSent(2));
  EXPECT_EQ(IdOf(1), IdOf(0));  // the same record, and alone
  ExpectShutAt(2);
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  EXPECT_TRUE(m_router.WaitForSent(7));
}

TEST_P(SingleSendTest, ARejectionLeavesTheModeToo) {
  BeginConnectedLife();
  FileRecord(10103, "first");
  ASSERT_TRUE(m_router.WaitForSent(1));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(0), GetParam())));
  ASSERT_TRUE(m_router.WaitForSent(2));
  for (int i = 0; i < 5; ++i) {
    FileRecord(10100, "later");
  }
  ExpectShutAt(2);
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0xE0010018)));
  EXPECT_TRUE(m_router.WaitForSent(7));
}

INSTANTIATE_TEST_SUITE_P(RetryableResults, SingleSendTest,
                         ::testing::Values(kWireTimeout, kWireCloudBusy, kWireCloudFailed),
                         [](const auto& param) { return ToHex(param.param); });

TEST_F(GateTest, SingleSendModeWaitsForEverythingInFlight) {
  BeginConnectedLife();
  for (int i = 0; i < 3; ++i) {
    FileRecord();
  }
  ASSERT_TRUE(m_router.WaitForSent(3));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(0), kWireTimeout)));
  const size_t uSent = WaitUntilShut(3);
  for (size_t u = 1; u < uSent; ++u) {
    ExpectShutAt(uSent);
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(u), kWireTimeout)));
  }
  ASSERT_TRUE(m_router.WaitForSent(uSent + 1));
  ExpectShutAt(uSent + 1);
}

TEST_F(GateTest, AConnectBroadcastLeavesSingleSendMode) {
  BeginConnectedLife();
  FileRecord();
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(2));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(0), kWireTimeout)));
  const size_t uSent = WaitUntilShut(2);
  FileRecord();
  ExpectShutAt(uSent);
  ASSERT_TRUE(Succeeded(m_router.DeliverConnect()));
  EXPECT_TRUE(m_router.WaitForSent(4));
}

TEST_F(GateTest, AnUnknownResultNeitherEntersNorLeavesSingleSendMode) {
  constexpr size_t kRecords = 6;
  BeginConnectedLife();
  EXPECT_TRUE(Failed(m_router.DeliverResult(1, kWireTimeout), kWireUnknownDataId));
  for (size_t i = 0; i < kRecords; ++i) {
    FileRecord();
  }
  ASSERT_TRUE(m_router.WaitForSent(kRecords));  // together
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(0), kWireTimeout)));
  const size_t uSent = WaitUntilShut(kRecords);
  FileRecord();
  EXPECT_TRUE(Failed(m_router.DeliverResult(1, 0), kWireUnknownDataId));
  ExpectShutAt(uSent);
}

// Seconds to wait before a send after that many failures in a row.
uint64_t ExpectedWaits(int iErrors) {
  if (iErrors <= 16) {
    return 0;
  }
  if (iErrors <= 127) {
    return 1;
  }
  if (iErrors <= 133) {
    return 3;
  }
  if (iErrors <= 138) {
    return 10;
  }
  return iErrors <= 147 ? 60 : 600;
}

class BackOffTest : public GateTest {
 protected:
  // Settles the record while the work thread waits. Otherwise it may come between the two halves of a settlement, find
  // the window open and no record yet, and wait once more than the failures ask for.
  void Settle(uint64_t u64DataId, uint32_t uResult) {
    EXPECT_TRUE(m_clock.HoldEventWaits());
    EXPECT_TRUE(Succeeded(m_router.DeliverResult(u64DataId, uResult)));
    m_clock.ReleaseEventWaits();
  }
};

TEST_F(BackOffTest, BacksOffByTheNumberOfFailures) {
  constexpr uint64_t kFast = 1000;
  constexpr char kSaveBegin[] = "qmlogcache CLogCacheMgr::SaveCacheToDb Begin";
  m_clock.SetEventDivisor(kFast);
  BeginConnectedLife();
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(1));
  const uint64_t u64DataId = IdOf(0);
  uint64_t u64Waits = 0;
  for (int iErrors = 1; iErrors <= 149; ++iErrors) {
    Settle(u64DataId, kWireTimeout);
    ASSERT_FALSE(HasFailure());
    ASSERT_TRUE(m_router.WaitForSent(static_cast<size_t>(iErrors) + 1));
    u64Waits += ExpectedWaits(iErrors);
    ASSERT_EQ(m_clock.EventWaits(kBackOffStepMs), u64Waits) << iErrors << " failures";
    ASSERT_EQ(m_log.Count(kSaveBegin), iErrors <= 16 ? 0u : 1u) << iErrors << " failures";
  }
  Settle(u64DataId, 0);
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(151));
  EXPECT_EQ(m_clock.EventWaits(kBackOffStepMs), u64Waits);  // no waiting any more
}

TEST_F(GateTest, StopEndsALongBackOff) {
  constexpr uint64_t kFast = 1000;
  m_clock.SetEventDivisor(kFast);
  BeginConnectedLife();
  FileRecord();
  for (int iErrors = 1; iErrors <= 148; ++iErrors) {
    ASSERT_TRUE(m_router.WaitForSent(static_cast<size_t>(iErrors)));
    if (iErrors == 148) {
      m_clock.SetEventDivisor(1);  // the ten minutes are real ones
    }
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(0), kWireCloudFailed)));
  }
  ASSERT_TRUE(m_clock.WaitForEventWaits(kBackOffStepMs, 1));
  m_host.Stop();
  EXPECT_EQ(m_log.Count("*qmlogcache CLogCacheMgr::Stop thread need kill"), 0u);
  EXPECT_EQ(m_router.SentCount(), 148u);
}

}  // namespace
