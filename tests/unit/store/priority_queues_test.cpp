#include <memory>
#include <string>
#include <vector>

#include "tests/support/manager_fixture.h"

namespace {

// A store of its own, without a manager. Records are filed without a cache file.
class PriorityQueuesTest : public ComponentTest {
 protected:
  int Insert(unsigned long long u64DataId, int iPriv, int iSaveStatus = 0, int bSave = 0) {
    auto* pExecData = new _LogExecData;
    pExecData->u64DataId = u64DataId;
    pExecData->iPriv = iPriv;
    pExecData->iMsgType = 1;
    pExecData->iDataSaveStatus = iSaveStatus;
    pExecData->strPluginId = kSenderText;
    pExecData->strProduct = "prod";
    pExecData->strCombo = "comb";
    pExecData->strData = "text";
    return m_data.InsertExecData(pExecData, bSave);
  }
  // Data id of the next record, 0 for none.
  unsigned long long Take() {
    const ExecDataHold hold = m_data.GetExecData();
    return hold == nullptr ? 0 : hold->u64DataId;
  }

  CLogCacheData m_data;
  CLogCacheDataPeer m_peer{m_data};
};

TEST_F(PriorityQueuesTest, ANewStoreHasItsInitialValues) {
  EXPECT_EQ(0u, m_peer.DataFlowFlag());
  EXPECT_EQ(500000u, m_peer.DataCountLimit());
  EXPECT_EQ(100000u, m_peer.LocalDataCountLimit());
  EXPECT_EQ(0u, m_peer.DataCoverFlag());
  EXPECT_EQ("", m_peer.LogCachePath());
  EXPECT_NE(nullptr, m_peer.DataEvent());
  EXPECT_EQ(0u, m_peer.MapSize());
}

TEST_F(PriorityQueuesTest, ANewRecordHasItsInitialValues) {
  const _LogExecData record;
  EXPECT_EQ(0, record.bIsDel);
  EXPECT_EQ(0u, record.StartTime);
  EXPECT_EQ(0u, record.ReSendCount);
  EXPECT_EQ(-1, record.iReserved);
  EXPECT_EQ(0u, record.u64Reserved);
  EXPECT_EQ(1, record.iDataSaveStatus);
  EXPECT_TRUE(record.strData.IsEmpty());
  EXPECT_EQ(nullptr, record.pLogCacheFile);
}

TEST_F(PriorityQueuesTest, MapsEachPriorityToItsQueue) {
  struct Row {
    int iPriv;
    int iIndex;
  };
  const Row aRows[] = {{0, 0},          {1, 1},
                       {2, 2},          {3, 3},
                       {4, 0},          {5, 1},
                       {6, 2},          {7, 3},
                       {8, 0},          {9, 1},
                       {10, 0},         {11, 1},
                       {12, 2},         {13, 3},
                       {14, 0},         {15, 1},
                       {17, 3},         {18, 0},
                       {2147483647, 1}, {-1, 0},
                       {-4, 0},         {-2147483647 - 1, 0}};
  for (const Row& row : aRows) {
    EXPECT_EQ(row.iIndex, QueueIndexOfPriority(row.iPriv)) << row.iPriv;
  }
}

TEST_F(PriorityQueuesTest, FilesRecordsIntoTheirQueues) {
  EXPECT_EQ(0, Insert(1, 13));
  EXPECT_EQ(1u, m_peer.QueueCount(3));
  EXPECT_EQ(0, Insert(2, 10));
  EXPECT_EQ(1u, m_peer.QueueCount(0));
  EXPECT_EQ(0, Insert(3, 7));
  EXPECT_EQ(2u, m_peer.QueueCount(3));
  EXPECT_EQ(0, Insert(4, 14));
  EXPECT_EQ(2u, m_peer.QueueCount(0));
}

TEST_F(PriorityQueuesTest, GivesRealHighNormalLowInThatOrder) {
  EXPECT_EQ(0, Insert(1, 0));
  EXPECT_EQ(0, Insert(2, 1));
  EXPECT_EQ(0, Insert(3, 2));
  EXPECT_EQ(0, Insert(4, 3));
  EXPECT_EQ(4u, Take());
  EXPECT_EQ(3u, Take());
  EXPECT_EQ(2u, Take());
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(0u, Take());
}

TEST_F(PriorityQueuesTest, KeepsTheOrderWithinAPriority) {
  for (const unsigned long long u64DataId : {30ULL, 10ULL, 20ULL}) {
    EXPECT_EQ(0, Insert(u64DataId, 2));
  }
  EXPECT_EQ(30u, Take());
  EXPECT_EQ(10u, Take());
  EXPECT_EQ(20u, Take());
}

TEST_F(PriorityQueuesTest, EachCallStartsAgainFromTheRealTimeQueue) {
  EXPECT_EQ(0, Insert(1, 0));
  EXPECT_EQ(0, Insert(2, 0));
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(0, Insert(3, 3));
  EXPECT_EQ(3u, Take());
  EXPECT_EQ(2u, Take());
}

TEST_F(PriorityQueuesTest, ATakenRecordBearsItsTime) {
  EXPECT_EQ(0, Insert(1, 0));
  EXPECT_EQ(0u, m_peer.Find(1)->StartTime);
  CFakeClock::Set(0x66000000);
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(0x66000000u, m_peer.Find(1)->StartTime);
  EXPECT_TRUE(m_data.IsDataIdExist(1));
}

TEST_F(PriorityQueuesTest, AnEmptyStoreWaitsFiveSecondsOnItsEvent) {
  std::vector<void*> vecHandles;
  CPlatformFaults::SetWaitHook([&](void* hEvent, unsigned int) { vecHandles.push_back(hEvent); });
  EXPECT_EQ(0u, Take());
  EXPECT_EQ((std::vector<unsigned int>{5000}), CPlatformFaults::Waits());
  EXPECT_EQ((std::vector<void*>{m_peer.DataEvent()}), vecHandles);
}

TEST_F(PriorityQueuesTest, ARecordThatComesDuringTheWaitIsTaken) {
  CPlatformFaults::SetWaitHook([this](void*, unsigned int) { EXPECT_EQ(0, Insert(9, 1)); });
  EXPECT_EQ(9u, Take());
}

TEST_F(PriorityQueuesTest, QueueingARecordSetsTheEvent) {
  std::vector<void*> vecHandles;
  CPlatformFaults::SetEventHook([&](void* hEvent) { vecHandles.push_back(hEvent); });
  EXPECT_EQ(0, Insert(1, 1));
  EXPECT_EQ((std::vector<void*>{m_peer.DataEvent()}), vecHandles);
}

TEST_F(ComponentTest, AStoreWithoutAnEventSleepsFiveSeconds) {
  CPlatformFaults::RefuseEvents(true);
  CLogCacheData data;
  EXPECT_EQ(nullptr, CLogCacheDataPeer(data).DataEvent());
  EXPECT_EQ(nullptr, data.GetExecData());
  EXPECT_EQ((std::vector<unsigned int>{5}), CFakeClock::Sleeps());
  EXPECT_TRUE(CPlatformFaults::Waits().empty());
}

TEST_F(PriorityQueuesTest, ANullRecordIsRefused) {
  EXPECT_EQ(static_cast<int>(0xE0010002), m_data.InsertExecData(nullptr, 1));
  EXPECT_EQ(0u, m_peer.MapSize());
}

TEST_F(PriorityQueuesTest, ADuplicateIsDroppedSilentlyAndCountsAsSuccess) {
  EXPECT_EQ(0, Insert(1, 1));
  const _LogExecData* pFirst = m_peer.Find(1);
  EXPECT_EQ(0, Insert(1, 3));  // a leak checker sees it if the new record stays
  EXPECT_EQ(1u, m_peer.MapSize());
  EXPECT_EQ(pFirst, m_peer.Find(1));
  EXPECT_EQ(1, m_peer.Find(1)->iPriv);
  EXPECT_EQ(0u, m_peer.QueueCount(3));
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(PriorityQueuesTest, AFailedWriteAtIntakeIsLoggedAndTheRecordQueued) {
  EXPECT_EQ(0, Insert(0xab, 12, 1, 1));  // no cache file
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache InsertExecData Error iRet[e0010002] StartTime[0] ReSendCount[0] u64DataId[ab] iPriv[12] "
        "iMsgType[1] iDataSaveStatus[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
        "strCombo[comb]"}}));
  EXPECT_EQ(1, m_peer.Find(0xab)->iDataSaveStatus);
  EXPECT_EQ(1u, m_peer.QueueCount(2));
}

TEST_F(PriorityQueuesTest, WithoutTheSaveFlagNothingIsWrittenAtIntake) {
  EXPECT_EQ(0, Insert(0xab, 12, 1, 0));
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(PriorityQueuesTest, ARecordThatTheQueueRefusesIsGone) {
  CPlatformFaults::RefuseQueueInserts(true);
  EXPECT_EQ(static_cast<int>(0xE0010003), Insert(1, 1));
  EXPECT_EQ(0u, m_peer.MapSize());
  CPlatformFaults::RefuseQueueInserts(false);
  EXPECT_EQ(0u, Take());
}

TEST_F(PriorityQueuesTest, AFreshStorePrintsZeros) {
  EXPECT_STREQ(
      "mapLogCacheFile[0] mapLogExecData[0] LowQueueData[0] NormalQueueData[0] HighQueueData[0] RealQueueData[0]",
      m_data.GetDataStat().c_str());
}

TEST_F(PriorityQueuesTest, TheStatusLineCountsTheMapAndEachQueue) {
  unsigned long long u64DataId = 0;
  for (const int iPriv : {0, 1, 1, 2, 2, 2, 3, 3, 3, 3}) {
    EXPECT_EQ(0, Insert(++u64DataId, iPriv));
  }
  EXPECT_STREQ(
      "mapLogCacheFile[0] mapLogExecData[10] LowQueueData[1] NormalQueueData[2] HighQueueData[3] RealQueueData[4]",
      m_data.GetDataStat().c_str());
  EXPECT_NE(0u, Take());
  EXPECT_STREQ(
      "mapLogCacheFile[0] mapLogExecData[10] LowQueueData[1] NormalQueueData[2] HighQueueData[3] RealQueueData[3]",
      m_data.GetDataStat().c_str());
}

TEST_F(PriorityQueuesTest, AStoreWithQueuedAndTakenRecordsFreesThemAll) {
  // A leak checker looks at what stays behind.
  auto pData = std::make_unique<CLogCacheData>();
  ASSERT_TRUE(pData->InitCacheData());
  for (unsigned long long u64DataId = 1; u64DataId <= 10; ++u64DataId) {
    EXPECT_EQ(0, pData->AddDataAction(0, u64DataId, 1, 1, 1, kSenderText, "p", "c", "text"));
  }
  EXPECT_NE(nullptr, pData->GetExecData());
  EXPECT_EQ(0, pData->DeleteDataAction(7));
  pData.reset();
}

}  // namespace
