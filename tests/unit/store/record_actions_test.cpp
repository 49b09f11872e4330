#include <string>

#include "tests/support/allocation_faults.h"
#include "tests/support/manager_fixture.h"

namespace {

class RecordActionsTest : public ComponentTest {
 protected:
  RecordActionsTest() {
    WriteConfig("");
    EXPECT_TRUE(m_data.InitCacheData());
    CLogCapture::Reset();
  }

  int Add(unsigned long long u64DataId, int bForceSave, int iSaveStatus) {
    return m_data.AddDataAction(bForceSave, u64DataId, 11, 2, iSaveStatus, kSenderText, "prod", "comb", "text");
  }
  // A record without a cache file, to be written.
  void InsertUnwritten(unsigned long long u64DataId) {
    auto* pExecData = new _LogExecData;
    pExecData->u64DataId = u64DataId;
    pExecData->iPriv = 2;
    pExecData->iMsgType = 3;
    pExecData->strPluginId = kSenderText;
    pExecData->strProduct = "prod";
    pExecData->strCombo = "comb";
    EXPECT_EQ(0, m_data.InsertExecData(pExecData, 0));
  }

  CLogCacheData m_data;
  CLogCacheDataPeer m_peer{m_data};
};

TEST_F(RecordActionsTest, FilesARecordWithAllItsFields) {
  m_peer.SetDataFlowFlag(1);
  EXPECT_EQ(0, Add(7, 0, 1));
  const _LogExecData* pRecord = m_peer.Find(7);
  ASSERT_NE(nullptr, pRecord);
  EXPECT_EQ(0, pRecord->bIsDel);
  EXPECT_EQ(0u, pRecord->StartTime);
  EXPECT_EQ(0u, pRecord->ReSendCount);
  EXPECT_EQ(-1, pRecord->iReserved);
  EXPECT_EQ(0u, pRecord->u64Reserved);
  EXPECT_EQ(7u, pRecord->u64DataId);
  EXPECT_EQ(11, pRecord->iPriv);
  EXPECT_EQ(2, pRecord->iMsgType);
  EXPECT_EQ(1, pRecord->iDataSaveStatus);
  EXPECT_STREQ(kSenderText, pRecord->strPluginId.c_str());
  EXPECT_STREQ("prod", pRecord->strProduct.c_str());
  EXPECT_STREQ("comb", pRecord->strCombo.c_str());
  EXPECT_STREQ("text", pRecord->strData.c_str());
}

TEST_F(RecordActionsTest, MemoryOnlyFlowForcesTheStatusToNever) {
  m_peer.SetDataFlowFlag(2);
  EXPECT_EQ(0, Add(1, 0, 1));
  EXPECT_EQ(0, Add(2, 1, 1));
  EXPECT_EQ(0, Add(3, 0, 2));
  for (const unsigned long long u64DataId : {1ULL, 2ULL, 3ULL}) {
    EXPECT_EQ(0, m_peer.Find(u64DataId)->iDataSaveStatus);
  }
  EXPECT_EQ(3u, m_peer.QueueCount(1));
  EXPECT_EQ(1, m_data.SaveCacheToDb());
  EXPECT_EQ(0, m_data.ReAddDataAction(1));
  EXPECT_EQ(0, m_peer.Find(1)->iDataSaveStatus);
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(RecordActionsTest, FlowAtSaveLeavesARecordUnwrittenAtIntake) {
  m_peer.SetDataFlowFlag(1);
  EXPECT_EQ(0, Add(1, 0, 1));
  EXPECT_EQ(1, m_peer.Find(1)->iDataSaveStatus);
  EXPECT_EQ(1u, m_peer.QueueCount(1));
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(RecordActionsTest, KeepsTheStatusOfARecordThatIsNotToBeSaved) {
  for (const uint32_t dwFlag : {0u, 1u, 3u}) {
    m_peer.SetDataFlowFlag(dwFlag);
    EXPECT_EQ(0, Add(dwFlag + 1, 1, 0));
    EXPECT_EQ(0, m_peer.Find(dwFlag + 1)->iDataSaveStatus) << dwFlag;
  }
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(RecordActionsTest, WithoutMemoryTheRecordIsRefused) {
  const CAllocationFault fault;
  EXPECT_EQ(static_cast<int>(0xE0010003), Add(1, 0, 1));
  EXPECT_EQ(0u, m_peer.MapSize());
}

TEST_F(RecordActionsTest, DeletesARecordOnce) {
  EXPECT_EQ(0, Add(1, 0, 0));
  EXPECT_EQ(0, m_data.DeleteDataAction(1));
  EXPECT_EQ(static_cast<int>(0xA0010042), m_data.DeleteDataAction(1));
  EXPECT_EQ(static_cast<int>(0xA0010042), m_data.DeleteExecDataMap(2));
  EXPECT_EQ(nullptr, m_data.GetExecData());
}

TEST_F(RecordActionsTest, DeletingAnUnwrittenRecordDoesNotTouchAFile) {
  InsertUnwritten(1);
  EXPECT_EQ(0, m_data.DeleteDataAction(1));
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(RecordActionsTest, QueuesARecordAgain) {
  EXPECT_EQ(0, Add(1, 0, 0));
  EXPECT_NE(nullptr, m_data.GetExecData());
  EXPECT_EQ(0x6553f100u, m_peer.Find(1)->StartTime);
  EXPECT_EQ(0, m_data.ReAddDataAction(1));
  EXPECT_EQ(1u, m_peer.Find(1)->ReSendCount);
  EXPECT_EQ(0u, m_peer.Find(1)->StartTime);
  EXPECT_EQ(1u, m_peer.QueueCount(1));
  const ExecDataHold hold = m_data.GetExecData();
  ASSERT_NE(nullptr, hold);
  EXPECT_EQ(1u, hold->u64DataId);
}

TEST_F(RecordActionsTest, QueueingAgainSetsTheEvent) {
  EXPECT_EQ(0, Add(1, 0, 0));
  EXPECT_NE(nullptr, m_data.GetExecData());
  int iSet = 0;
  CPlatformFaults::SetEventHook([&](void* hEvent) { iSet += hEvent == m_peer.DataEvent() ? 1 : 0; });
  EXPECT_EQ(0, m_data.ReAddDataAction(1));
  EXPECT_EQ(1, iSet);
}

TEST_F(RecordActionsTest, AnUnknownRecordIsNotQueuedAgain) {
  EXPECT_EQ(static_cast<int>(0xA0010042), m_data.ReAddDataAction(5));
  EXPECT_EQ(static_cast<int>(0xA0010042), m_data.ReInsertExecData(5));
}

TEST_F(RecordActionsTest, AFailedWriteWhenQueuedAgainIsLoggedWithTheFieldsBefore) {
  InsertUnwritten(0xab);
  EXPECT_NE(nullptr, m_data.GetExecData());
  EXPECT_EQ(0, m_data.ReAddDataAction(0xab));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache ReInsertExecData Error iRet[e0010002] StartTime[6553f100] ReSendCount[0] u64DataId[ab] iPriv[2] "
        "iMsgType[3] iDataSaveStatus[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
        "strCombo[comb]"}}));
  EXPECT_EQ(1u, m_peer.Find(0xab)->ReSendCount);
  EXPECT_EQ(1u, m_peer.QueueCount(2));
}

TEST_F(RecordActionsTest, ARecordThatTheQueueRefusesAgainIsGone) {
  EXPECT_EQ(0, Add(1, 0, 0));
  EXPECT_NE(nullptr, m_data.GetExecData());
  CPlatformFaults::RefuseQueueInserts(true);
  EXPECT_EQ(static_cast<int>(0xE0010003), m_data.ReAddDataAction(1));
  EXPECT_EQ(0u, m_peer.MapSize());
}

TEST_F(RecordActionsTest, ARecordThatIsStillQueuedStandsInItsQueueOnce) {
  EXPECT_EQ(0, Add(1, 0, 0));
  EXPECT_EQ(0, m_data.ReAddDataAction(1));
  EXPECT_EQ(0, m_data.ReAddDataAction(1));
  EXPECT_EQ(1u, m_peer.QueueCount(1));
  EXPECT_EQ(2u, m_peer.Find(1)->ReSendCount);
  EXPECT_EQ(0u, m_peer.Find(1)->StartTime);
}

TEST_F(RecordActionsTest, CopiesTheFieldsWithTheData) {
  m_peer.SetDataFlowFlag(1);
  EXPECT_EQ(0, Add(1, 0, 1));
  m_data.DelFirLineFromExecData();
  EXPECT_NE(nullptr, m_data.GetExecData());
  m_peer.Find(1)->ReSendCount = 4;
  m_peer.Find(1)->iReserved = 5;
  m_peer.Find(1)->u64Reserved = 6;
  _LogExecData out;
  EXPECT_EQ(0, m_data.GetExecDataFromMap(1, 1, out));
  EXPECT_EQ(0, out.bIsDel);
  EXPECT_EQ(0x6553f100u, out.StartTime);
  EXPECT_EQ(4u, out.ReSendCount);
  EXPECT_EQ(5, out.iReserved);
  EXPECT_EQ(6u, out.u64Reserved);
  EXPECT_EQ(1u, out.u64DataId);
  EXPECT_EQ(11, out.iPriv);
  EXPECT_EQ(2, out.iMsgType);
  EXPECT_EQ(1, out.iDataSaveStatus);
  EXPECT_STREQ(kSenderText, out.strPluginId.c_str());
  EXPECT_STREQ("prod", out.strProduct.c_str());
  EXPECT_STREQ("comb", out.strCombo.c_str());
  EXPECT_STREQ("text", out.strData.c_str());
  EXPECT_EQ(nullptr, out.pLogCacheFile);
}

TEST_F(RecordActionsTest, WithoutTheDataTheCopyKeepsItsOwn) {
  EXPECT_EQ(0, Add(1, 0, 0));
  _LogExecData out;
  out.strData = "mine";
  EXPECT_EQ(0, m_data.GetExecDataFromMap(1, 0, out));
  EXPECT_STREQ("mine", out.strData.c_str());
  EXPECT_EQ(1u, out.u64DataId);
}

TEST_F(RecordActionsTest, ACopyOfAnUnknownRecordChangesNothing) {
  _LogExecData out;
  out.u64DataId = 99;
  EXPECT_EQ(static_cast<int>(0xA0010042), m_data.GetExecDataFromMap(1, 1, out));
  EXPECT_EQ(99u, out.u64DataId);
}

TEST_F(RecordActionsTest, AddExecDataMapRefusesNull) {
  EXPECT_EQ(static_cast<int>(0xE0010002), m_data.AddExecDataMap(nullptr));
}

TEST_F(RecordActionsTest, AddCacheDataHasNothingToWriteUnlessPending) {
  _LogExecData record;
  EXPECT_EQ(static_cast<int>(0xE0010002), m_data.AddCacheData(nullptr));
  EXPECT_EQ(static_cast<int>(0xE0010002), m_data.AddCacheData(&record));  // pending, and no cache file
  EXPECT_EQ(1, record.iDataSaveStatus);
  record.iDataSaveStatus = 0;
  EXPECT_EQ(0, m_data.AddCacheData(&record));
  record.iDataSaveStatus = 2;
  EXPECT_EQ(0, m_data.AddCacheData(&record));
}

TEST_F(RecordActionsTest, CleaningLeavesAnEmptyMapAndNothingToTake) {
  for (unsigned long long u64DataId = 1; u64DataId <= 3; ++u64DataId) {
    EXPECT_EQ(0, Add(u64DataId, 0, 0));
  }
  m_data.CleanExecDataMap();
  EXPECT_EQ(0u, m_peer.MapSize());
  EXPECT_EQ(nullptr, m_data.GetExecData());
}

TEST_F(RecordActionsTest, ANewRecordUnderAnIdThatIsThereIsDroppedAsASuccess) {
  EXPECT_EQ(0, m_data.AddDataAction(0, 77, 1, 1, 1, kSenderText, "prod", "comb", "first"));
  const unsigned long ulQueued = m_peer.QueueCount(1);
  const size_t uFiled = m_peer.MapSize();
  EXPECT_EQ(0, m_data.AddDataAction(0, 77, 1, 1, 1, kSenderText, "prod", "comb", "second"));
  EXPECT_EQ(uFiled, m_peer.MapSize());
  EXPECT_EQ(ulQueued, m_peer.QueueCount(1));
  EXPECT_STREQ("first", m_peer.Find(77)->strData.c_str());
}

}  // namespace
