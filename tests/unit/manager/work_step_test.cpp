// The work thread's and the timer thread's step, called by the test.
#include <string>

#include "tests/support/manager_fixture.h"

namespace {

class WorkStepTest : public ManagerTest {
 protected:
  WorkStepTest() : m_state(m_peer.BeginWork()) {
    // Nobody else runs: sleeps and waits need no real time at all.
    CFakeClock::SetSleepHook([](unsigned int) {});
    CPlatformFaults::ShortenWaits(0);
  }

  bool Step() { return m_peer.WorkStep(m_state); }
  size_t StatisticsLines() {
    size_t uCount = 0;
    for (const LogLine& line : CLogCapture::Lines()) {
      uCount += line.strText.find("CLogCacheMgr::PrintfStat") != std::string::npos ? 1 : 0;
    }
    return uCount;
  }

  CLogCacheMgrPeer::WorkState m_state;
};

using TimerStepTest = ManagerTest;

TEST_F(WorkStepTest, AsksForTheConnectionAfter31SecondsAndThenEvery61) {
  m_context.SetConnectAnswer(0xE0010001, 0, nullptr);
  std::vector<time_t> vecAsked;
  for (int i = 0; i < 200; ++i) {
    const size_t uBefore = m_context.Queries().size();
    ASSERT_TRUE(Step());
    if (m_context.Queries().size() > uBefore) {
      vecAsked.push_back(CFakeClock::Now() - kTestStart);
    }
  }
  EXPECT_EQ((std::vector<time_t>{31, 92, 153}), vecAsked);
  EXPECT_EQ(std::vector<unsigned int>(200, 1), CFakeClock::Sleeps());
  EXPECT_EQ(3u, CLogCapture::Count(kMainChannel, 2, "qmlogcache agent is not connected to the server"));
  EXPECT_FALSE(m_peer.Connected());
}

TEST_F(WorkStepTest, ConnectsOnAPositiveAnswer) {
  m_context.SetConnectAnswer(0, 0, "{\"onlineflag\":\"1\"}");
  for (int i = 0; i < 31; ++i) {
    ASSERT_TRUE(Step());
  }
  EXPECT_TRUE(m_peer.Connected());
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 2, "qmlogcache GetServerConnectStat bStatus[1] strFlag[1] strData[{\"onlineflag\":\"1\"}]"},
       {kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread connect server OK"}}));
}

TEST_F(WorkStepTest, SendsNothingAndPrintsNoStatisticsBeforeTheConnection) {
  m_context.SetConnectAnswer(0xE0010001, 0, nullptr);
  AddRecord();
  for (int i = 0; i < 4000; ++i) {
    ASSERT_TRUE(Step());
  }
  EXPECT_LE(kTestStart + 4000, CFakeClock::Now());
  EXPECT_EQ(0u, StatisticsLines());
  EXPECT_TRUE(m_context.Sends().empty());
}

TEST_F(WorkStepTest, PrintsStatisticsEvery600Seconds) {
  m_peer.SetConnected(true);
  CFakeClock::Set(kTestStart + 599);
  ASSERT_TRUE(Step());
  EXPECT_EQ(0u, StatisticsLines());
  CFakeClock::Set(kTestStart + 600);
  ASSERT_TRUE(Step());
  ASSERT_TRUE(Step());
  EXPECT_EQ(1u, StatisticsLines());
  CFakeClock::Set(kTestStart + 1199);
  ASSERT_TRUE(Step());
  EXPECT_EQ(1u, StatisticsLines());
  CFakeClock::Set(kTestStart + 1200);
  ASSERT_TRUE(Step());
  EXPECT_EQ(2u, StatisticsLines());
}

TEST_F(WorkStepTest, StatisticsReanchorWhenTheClockIsSetBack) {
  m_peer.SetConnected(true);
  CFakeClock::Set(kTestStart - 100000);
  ASSERT_TRUE(Step());
  EXPECT_EQ(0u, StatisticsLines());
  CFakeClock::Set(kTestStart - 100000 + 599);
  ASSERT_TRUE(Step());
  EXPECT_EQ(0u, StatisticsLines());
  CFakeClock::Set(kTestStart - 100000 + 600);
  ASSERT_TRUE(Step());
  EXPECT_EQ(1u, StatisticsLines());
}

TEST_F(WorkStepTest, SweepsOnceAnHour) {
  m_peer.SetConnected(true);
  const unsigned long long u64DataId = SendRecord();
  // Sent more than four hours ago, as far as the record knows.
  m_dataPeer.Find(u64DataId)->StartTime = 0x6553f100 - 20000;
  m_peer.SetSendRefCount(128);  // the gate keeps what is queued again
  CFakeClock::Set(kTestStart + 3599);
  ASSERT_TRUE(Step());
  EXPECT_EQ(0u, m_dataPeer.QueueCount(1));
  CFakeClock::Set(kTestStart + 3600);
  ASSERT_TRUE(Step());
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
  EXPECT_EQ(1u, m_dataPeer.Find(u64DataId)->ReSendCount);
}

TEST_F(WorkStepTest, TheSweepReanchorsWhenTheClockIsSetBack) {
  m_peer.SetConnected(true);
  const unsigned long long u64DataId = SendRecord();
  m_dataPeer.Find(u64DataId)->StartTime = 1;
  m_peer.SetSendRefCount(128);
  CFakeClock::Set(kTestStart - 100000);
  ASSERT_TRUE(Step());
  CFakeClock::Set(kTestStart - 100000 + 3599);
  ASSERT_TRUE(Step());
  EXPECT_EQ(0u, m_dataPeer.QueueCount(1));
  CFakeClock::Set(kTestStart - 100000 + 3600);
  ASSERT_TRUE(Step());
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
}

TEST_F(WorkStepTest, ARefusingGateIsAskedAgainAfterATenthOfASecond) {
  m_peer.SetConnected(true);
  m_peer.SetSendRefCount(128);
  AddRecord();
  ASSERT_TRUE(Step());
  EXPECT_EQ((std::vector<unsigned int>{100}), CPlatformFaults::Waits());
  EXPECT_TRUE(m_context.Sends().empty());
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
}

TEST_F(WorkStepTest, AnEmptyStoreIsAskedForFiveSeconds) {
  m_peer.SetConnected(true);
  ASSERT_TRUE(Step());
  EXPECT_EQ((std::vector<unsigned int>{5000}), CPlatformFaults::Waits());
}

TEST_F(WorkStepTest, SendsOneRecordAStep) {
  m_peer.SetConnected(true);
  AddRecord();
  AddRecord();
  ASSERT_TRUE(Step());
  EXPECT_EQ(1u, m_context.Sends().size());
  ASSERT_TRUE(Step());
  EXPECT_EQ(2u, m_context.Sends().size());
}

TEST_F(WorkStepTest, WaitsOutTheBackOffBeforeItSends) {
  m_peer.SetConnected(true);
  m_peer.SetSendSingle(1);
  m_peer.SetSendErrorCount(128);
  AddRecord();
  ASSERT_TRUE(Step());
  EXPECT_EQ((std::vector<unsigned int>{1000, 1000, 1000}), CPlatformFaults::Waits());
  EXPECT_EQ(1u, m_context.Sends().size());
}

TEST_F(WorkStepTest, ABroadcastDoesNotShortenTheCountOfBackOffSteps) {
  m_peer.SetConnected(true);
  m_peer.SetSendSingle(1);
  m_peer.SetSendErrorCount(148);
  AddRecord();
  size_t uWaits = 0;
  CPlatformFaults::SetWaitHook([&](void*, unsigned int) {
    if (++uWaits == 3) {
      m_manager.BroadcastConnect();
    }
  });
  ASSERT_TRUE(Step());
  EXPECT_EQ(std::vector<unsigned int>(600, 1000), CPlatformFaults::Waits());
  EXPECT_EQ(0, m_peer.SendErrorCount());
  EXPECT_EQ(1u, m_context.Sends().size());
}

TEST_F(WorkStepTest, AStopEndsALongBackOffAtItsNextStep) {
  m_peer.SetConnected(true);
  m_peer.SetSendSingle(1);
  m_peer.SetSendErrorCount(148);
  AddRecord();
  size_t uWaits = 0;
  CPlatformFaults::SetWaitHook([&](void*, unsigned int) {
    if (++uWaits == 3) {
      m_peer.RequestStop();
    }
  });
  EXPECT_FALSE(Step());
  EXPECT_EQ((std::vector<unsigned int>{1000, 1000, 1000}), CPlatformFaults::Waits());
  EXPECT_TRUE(m_context.Sends().empty());
}

TEST_F(WorkStepTest, AStopEndsTheLoopBeforeTheNextStep) {
  m_peer.SetConnected(true);
  AddRecord();
  m_peer.RequestStop();
  EXPECT_FALSE(Step());
  EXPECT_TRUE(m_context.Sends().empty());
  EXPECT_TRUE(CPlatformFaults::Waits().empty());
}

TEST_F(WorkStepTest, ARecordMarkedForDroppingIsDeletedInsteadOfSent) {
  m_peer.SetConnected(true);
  const unsigned long long u64DataId = AddRecord();
  m_data.DelFirLineFromExecData();
  CLogCapture::Reset();
  ASSERT_TRUE(Step());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 2,
                              "qmlogcache CLogCacheMgr::WorkThread bIsDel is TRUE u64DataId[6553f10000000001] "
                              "strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]"}}));
  EXPECT_FALSE(m_data.IsDataIdExist(u64DataId));
  EXPECT_TRUE(m_context.Sends().empty());
  EXPECT_EQ(0, m_peer.SendRefCount());
}

TEST_F(ComponentTest, WithoutAnEventTheWaitsAreSleeps) {
  CPlatformFaults::RefuseEvents(true);
  CLogCacheMgr& manager = *CLogCacheMgr::Instance();
  CLogCacheMgrPeer peer(manager);
  CLogCacheMgrPeer::WorkState state = peer.BeginWork();
  peer.SetConnected(true);
  peer.SetSendRefCount(128);
  EXPECT_TRUE(peer.WorkStep(state));
  EXPECT_EQ((std::vector<unsigned int>{100000}), CFakeClock::MicroSleeps());
  peer.SetSendRefCount(0);
  peer.SetSendSingle(1);
  peer.SetSendErrorCount(128);
  EXPECT_TRUE(peer.WorkStep(state));
  EXPECT_EQ((std::vector<unsigned int>{1, 1, 1, 5}), CFakeClock::Sleeps());
  CLogCacheMgr::Close();
}

TEST_F(TimerStepTest, PausesThreeHundredTimesOneSecond) {
  CFakeClock::SetSleepHook([](unsigned int) {});
  const unsigned int uStopCount = m_peer.BeginTimer();
  EXPECT_TRUE(m_peer.TimerStep(uStopCount));
  EXPECT_EQ(std::vector<unsigned int>(300, 1), CFakeClock::Sleeps());
}

TEST_F(TimerStepTest, SeesAStopWithinOneSecond) {
  const unsigned int uStopCount = m_peer.BeginTimer();
  size_t uSleeps = 0;
  CFakeClock::SetSleepHook([&](unsigned int) {
    if (++uSleeps == 5) {
      m_peer.RequestStop();
    }
  });
  EXPECT_FALSE(m_peer.TimerStep(uStopCount));
  EXPECT_EQ(5u, uSleeps);
}

}  // namespace
