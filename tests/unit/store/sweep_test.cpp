// The four-hour sweep.
#include "tests/support/manager_fixture.h"

namespace {

constexpr uint32_t kTaken = 0x6553f100;

class SweepTest : public ComponentTest {
 protected:
  SweepTest() { EXPECT_TRUE(m_data.InitCacheData()); }

  // Files records 1 to uCount and takes them all at kTaken.
  void TakeRecords(unsigned long long uCount) {
    for (unsigned long long u64DataId = 1; u64DataId <= uCount; ++u64DataId) {
      EXPECT_EQ(0, m_data.AddDataAction(0, u64DataId, 1, 1, 1, kSenderText, "prod", "comb", "text"));
      EXPECT_NE(nullptr, m_data.GetExecData());
    }
  }

  CLogCacheData m_data;
  CLogCacheDataPeer m_peer{m_data};
};

TEST_F(SweepTest, LeavesARecordOneSecondShortOfFourHours) {
  TakeRecords(1);
  CFakeClock::Set(kTaken + 14399);
  m_data.RepeatExecDataMap();
  EXPECT_EQ(0u, m_peer.QueueCount(1));
  EXPECT_EQ(0u, m_peer.Find(1)->ReSendCount);
  EXPECT_EQ(kTaken, m_peer.Find(1)->StartTime);
}

TEST_F(SweepTest, QueuesARecordAgainAfterFourHours) {
  TakeRecords(1);
  CFakeClock::Set(kTaken + 14400);
  m_data.RepeatExecDataMap();
  EXPECT_EQ(1u, m_peer.QueueCount(1));
  EXPECT_EQ(1u, m_peer.Find(1)->ReSendCount);
  EXPECT_EQ(0u, m_peer.Find(1)->StartTime);
}

TEST_F(SweepTest, SkipsARecordThatIsStillQueued) {
  EXPECT_EQ(0, m_data.AddDataAction(0, 1, 1, 1, 1, kSenderText, "prod", "comb", "text"));
  CFakeClock::Set(kTaken + 100000);
  m_data.RepeatExecDataMap();
  EXPECT_EQ(1u, m_peer.QueueCount(1));
  EXPECT_EQ(0u, m_peer.Find(1)->ReSendCount);
}

TEST_F(SweepTest, ReanchorsARecordWhenTheClockWasSetBack) {
  TakeRecords(1);
  CFakeClock::Set(kTaken - 500);
  m_data.RepeatExecDataMap();
  EXPECT_EQ(kTaken - 500, m_peer.Find(1)->StartTime);
  EXPECT_EQ(0u, m_peer.QueueCount(1));
  CFakeClock::Set(kTaken - 500 + 14400);
  m_data.RepeatExecDataMap();
  EXPECT_EQ(1u, m_peer.QueueCount(1));
}

TEST_F(SweepTest, QueuesInAscendingOrder) {
  TakeRecords(3);
  CFakeClock::Set(kTaken + 14400);
  m_data.RepeatExecDataMap();
  for (unsigned long long u64DataId = 1; u64DataId <= 3; ++u64DataId) {
    const ExecDataHold hold = m_data.GetExecData();
    ASSERT_NE(nullptr, hold);
    EXPECT_EQ(u64DataId, hold->u64DataId);
  }
}

TEST_F(SweepTest, GoesOnAfterARecordThatItsQueueRefuses) {
  TakeRecords(3);
  CFakeClock::Set(kTaken + 14400);
  int iInsert = 0;
  CPlatformFaults::SetInsertHook([&] { ++iInsert; });
  CPlatformFaults::RefuseQueueInserts(true);
  m_data.RepeatExecDataMap();
  EXPECT_EQ(3, iInsert);
  EXPECT_EQ(0u, m_peer.MapSize());
}

TEST_F(SweepTest, GoesOnWithTheRecordThatFollowedARefusedOne) {
  TakeRecords(3);
  CFakeClock::Set(kTaken + 14400);
  int iInsert = 0;
  // Takes effect for the insertion under way: the second is refused.
  CPlatformFaults::SetInsertHook([&] { CPlatformFaults::RefuseQueueInserts(++iInsert == 2); });
  m_data.RepeatExecDataMap();
  EXPECT_TRUE(m_data.IsDataIdExist(1));
  EXPECT_FALSE(m_data.IsDataIdExist(2));
  EXPECT_TRUE(m_data.IsDataIdExist(3));
  EXPECT_EQ(2u, m_peer.QueueCount(1));
}

TEST_F(SweepTest, DoesNotLowerTheInFlightCount) {
  CLogCacheMgr& manager = *CLogCacheMgr::Instance();
  CLogCacheMgrPeer peer(manager);
  ASSERT_TRUE(manager.Init());
  EXPECT_EQ(0, manager.AddExecData(10101, 1, 1, 1, kSenderText, "", "", "x"));
  EXPECT_NE(nullptr, peer.Data().GetExecData());
  manager.AddSendRef();
  CFakeClock::Advance(14400);
  peer.Data().RepeatExecDataMap();
  EXPECT_EQ(1u, CLogCacheDataPeer(peer.Data()).QueueCount(1));
  EXPECT_EQ(1, peer.SendRefCount());
  CLogCacheMgr::Close();
}

}  // namespace
