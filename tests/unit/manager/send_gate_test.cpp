#include "manager/send_gate.h"

#include "tests/support/manager_fixture.h"

namespace {

constexpr char kSaveBegin[] = "qmlogcache CLogCacheMgr::SaveCacheToDb Begin";
constexpr char kSaveEnd[] = "qmlogcache CLogCacheMgr::SaveCacheToDb End bStatus[1]";

class SendGateTest : public ManagerTest {
 protected:
  // Seconds to wait, or -1 when the gate refuses. An untouched iWaitSec reads -2.
  int Ask() {
    int iWaitSec = -2;
    return m_manager.IsAllowSend(iWaitSec) ? iWaitSec : (iWaitSec == -2 ? -1 : -3);
  }
  void EnterSingleSend(long lErrors, long lInFlight) {
    m_peer.SetSendSingle(1);
    m_peer.SetSendErrorCount(lErrors);
    m_peer.SetSendRefCount(lInFlight);
  }
};

TEST_F(SendGateTest, CountsRecordsInFlight) {
  EXPECT_EQ(1, m_manager.AddSendRef());
  EXPECT_EQ(2, m_manager.AddSendRef());
  EXPECT_EQ(1, m_manager.SubSendRef());
  EXPECT_EQ(0, m_manager.SubSendRef());
  EXPECT_EQ(-1, m_manager.SubSendRef());
}

TEST_F(SendGateTest, AllowsAt127InFlight) {
  m_peer.SetSendRefCount(127);
  int iWaitSec = 0;
  EXPECT_TRUE(m_manager.IsAllowSend(iWaitSec));
  EXPECT_EQ(0, iWaitSec);
}

TEST_F(SendGateTest, RefusesAt128InFlight) {
  m_peer.SetSendRefCount(128);
  EXPECT_EQ(-1, Ask());
  m_peer.SetSendRefCount(129);
  EXPECT_EQ(-1, Ask());
}

TEST_F(SendGateTest, NormalModeClearsTheSaveFlag) {
  m_peer.SetSaveCacheFlag(1);
  m_peer.SetSendRefCount(128);
  EXPECT_EQ(-1, Ask());
  EXPECT_EQ(0, m_peer.SaveCacheFlag());
}

TEST_F(SendGateTest, SingleSendModeSendsOneRecordAtATime) {
  for (const long lErrors : {1L, 16L, 17L, 147L, 148L, 100000L}) {
    EnterSingleSend(lErrors, 1);
    EXPECT_EQ(-1, Ask()) << lErrors;
    m_peer.SetSendRefCount(2);
    EXPECT_EQ(-1, Ask()) << lErrors;
  }
}

TEST_F(SendGateTest, UpToSixteenFailuresDoNotDelayAndDoNotSave) {
  for (const long lErrors : {0L, 1L, 16L}) {
    EnterSingleSend(lErrors, 0);
    EXPECT_EQ(0, Ask()) << lErrors;
  }
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(SendGateTest, SixteenFailuresClearTheSaveFlagOnlyWhenASendIsAllowed) {
  EnterSingleSend(16, 1);
  m_peer.SetSaveCacheFlag(1);
  EXPECT_EQ(-1, Ask());
  EXPECT_EQ(1, m_peer.SaveCacheFlag());
  m_peer.SetSendRefCount(0);
  EXPECT_EQ(0, Ask());
  EXPECT_EQ(0, m_peer.SaveCacheFlag());
}

TEST_F(SendGateTest, SavesOnceAtSeventeenFailuresAndWaitsASecond) {
  EnterSingleSend(17, 0);
  EXPECT_EQ(1, Ask());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, kSaveBegin}, {kMainChannel, 6, kSaveEnd}}));
  EXPECT_EQ(1, m_peer.SaveCacheFlag());
  EXPECT_EQ(1, Ask());
  m_peer.SetSendErrorCount(18);
  EXPECT_EQ(1, Ask());
  EXPECT_EQ(2u, CLogCapture::Lines().size());
}

TEST_F(SendGateTest, SavesAlsoWhileARecordIsInFlight) {
  EnterSingleSend(17, 1);
  EXPECT_EQ(-1, Ask());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6, kSaveBegin));
}

TEST_F(SendGateTest, SavesAgainInANewStretchOfFailures) {
  EnterSingleSend(17, 0);
  EXPECT_EQ(1, Ask());
  m_manager.SetSendSingleFlag(0);
  EXPECT_EQ(0, m_peer.SendSingle());
  int iWaitSec = 0;
  EXPECT_TRUE(m_manager.IsAllowSend(iWaitSec));
  EnterSingleSend(17, 0);
  EXPECT_EQ(1, Ask());
  EXPECT_EQ(2u, CLogCapture::Count(kMainChannel, 6, kSaveBegin));
}

TEST_F(SendGateTest, BackOffGrowsInUnevenBands) {
  struct Row {
    long lErrors;
    int iSeconds;
  };
  const Row aRows[] = {{17, 1},   {127, 1},  {128, 3},   {133, 3},   {134, 10},      {138, 10},
                       {139, 60}, {147, 60}, {148, 600}, {149, 600}, {1000000, 600}, {1L << 40, 600}};
  for (const Row& row : aRows) {
    EnterSingleSend(row.lErrors, 0);
    EXPECT_EQ(row.iSeconds, Ask()) << row.lErrors;
    EXPECT_EQ(row.iSeconds, BackOffSeconds(row.lErrors)) << row.lErrors;
  }
}

TEST_F(SendGateTest, AFailureEntersSingleSendModeAndIsCounted) {
  m_manager.SetSendSingleFlag(1);
  EXPECT_EQ(1, m_peer.SendSingle());
  EXPECT_EQ(1, m_peer.SendErrorCount());
  m_manager.SetSendSingleFlag(1);
  EXPECT_EQ(2, m_peer.SendErrorCount());
}

TEST_F(SendGateTest, AnyOtherResultLeavesSingleSendMode) {
  EnterSingleSend(5, 0);
  m_manager.SetSendSingleFlag(0);
  EXPECT_EQ(0, m_peer.SendSingle());
  EXPECT_EQ(0, m_peer.SendErrorCount());
}

TEST_F(SendGateTest, EveryFlagCallSetsTheManagersEvent) {
  int iSet = 0;
  void* hEvent = m_peer.Event();
  ASSERT_NE(nullptr, hEvent);
  CPlatformFaults::SetEventHook([&](void* h) { iSet += h == hEvent ? 1 : 0; });
  m_manager.SetSendSingleFlag(0);
  EXPECT_EQ(1, iSet);
  m_manager.SetSendSingleFlag(1);
  EXPECT_EQ(2, iSet);
}

TEST_F(SendGateTest, ABroadcastEndsSingleSendModeAndConnects) {
  EnterSingleSend(200, 0);
  m_manager.BroadcastConnect();
  EXPECT_EQ(0, m_peer.SendSingle());
  EXPECT_EQ(0, m_peer.SendErrorCount());
  EXPECT_TRUE(m_peer.Connected());
}

}  // namespace
