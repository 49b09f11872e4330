#include <string>

#include "tests/support/manager_fixture.h"

namespace {

constexpr uint32_t kTimeout = 0xE0010019;
constexpr uint32_t kCloud25 = 0xB0010025;
constexpr uint32_t kCloud26 = 0xB0010026;

class SettlementTest : public ManagerTest {
 protected:
  // Sends a record at a clock of 0x6553f200, one more being in flight besides.
  unsigned long long Send() {
    m_peer.SetSendRefCount(1);
    CFakeClock::Set(0x6553f200);
    const unsigned long long u64DataId = SendRecord();
    CLogCapture::Reset();
    return u64DataId;
  }
  void TakeAndSendAgain() {
    const ExecDataHold hold = m_data.GetExecData();
    ASSERT_NE(nullptr, hold);
    EXPECT_EQ(1, m_manager.RunExecData(hold.get()));
    CLogCapture::Reset();
  }
};

TEST_F(SettlementTest, ADeliveredRecordIsDeleted) {
  m_peer.SetSendSingle(1);
  m_peer.SetSendErrorCount(4);
  EXPECT_EQ(0, m_manager.ResultExecData(Send(), 0, 0xac7));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 2,
        "qmlogcache step3 OK ResultExecData DeleteDataAction OK SubSendRef lRefCount[1] StartTime[6553f200] "
        "ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] iDataSaveStatus[0] "
        "strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]\n"}}));
  EXPECT_EQ(1u, m_peer.Statistics().CountSuccess);
  EXPECT_EQ(0u, m_dataPeer.MapSize());
  EXPECT_EQ(0, m_peer.SendSingle());
  EXPECT_EQ(0, m_peer.SendErrorCount());
}

TEST_F(SettlementTest, ADeliveredRecordThatVanishesBeforeItsDeletionIsAnError) {
  const unsigned long long u64DataId = Send();
  // The gate's event is set between the lookup and the deletion.
  CPlatformFaults::SetEventHook([&](void* hEvent) {
    if (hEvent == m_peer.Event()) {
      EXPECT_EQ(0, m_data.DeleteDataAction(u64DataId));
    }
  });
  EXPECT_EQ(static_cast<int>(0xA0010042), m_manager.ResultExecData(u64DataId, 0, 0xac7));
  CPlatformFaults::SetEventHook(nullptr);
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step3 OK Error ResultExecData OK DeleteDataAction Error iRet[a0010042] SubSendRef lRefCount[1] "
        "StartTime[6553f200] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] "
        "iDataSaveStatus[0] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
        "strCombo[combo]\n"}}));
  EXPECT_EQ(1u, m_peer.Statistics().CountSuccess);
}

TEST_F(SettlementTest, ATimedOutRecordIsQueuedAgain) {
  EXPECT_EQ(0, m_manager.ResultExecData(Send(), kTimeout, 0xac7));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step3 Error ResultExecData ReAddDataAction OK SubSendRef lRefCount[1] result[e0010019] "
        "StartTime[6553f200] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] "
        "iDataSaveStatus[0] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
        "strCombo[combo]\n"}}));
  EXPECT_EQ(1u, m_peer.Statistics().CountTimeout);
  EXPECT_EQ(0u, m_peer.Statistics().CountReTimeout);
  const _LogExecData* pRecord = m_dataPeer.Find(kFirstDataId);
  ASSERT_NE(nullptr, pRecord);
  EXPECT_EQ(1u, pRecord->ReSendCount);
  EXPECT_EQ(0u, pRecord->StartTime);
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
  EXPECT_EQ(1, m_peer.SendSingle());
  EXPECT_EQ(1, m_peer.SendErrorCount());
}

TEST_F(SettlementTest, ASecondTimeoutCountsAsARepeat) {
  const unsigned long long u64DataId = Send();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0));
  TakeAndSendAgain();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ(1u, m_peer.Statistics().CountTimeout);
  EXPECT_EQ(1u, m_peer.Statistics().CountReTimeout);
  EXPECT_EQ(2u, m_dataPeer.Find(u64DataId)->ReSendCount);
  EXPECT_EQ(2, m_peer.SendErrorCount());
}

TEST_F(SettlementTest, TheDestinationsCloudCodesQueueARecordAgain) {
  const unsigned long long u64DataId = Send();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kCloud26, 0x1));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache step3 Error ResultExecData ReAddDataAction OK SubSendRef lRefCount[1] result[b0010026] "
      "StartTime[6553f200] ReSendCount[0] ui64ACT[1] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] "
      "iDataSaveStatus[0] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]\n"));
  EXPECT_EQ(1u, m_peer.Statistics().CountQmcloud);
  EXPECT_EQ(1, m_peer.SendSingle());
  TakeAndSendAgain();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kCloud25, 0x1));
  EXPECT_EQ(1u, m_peer.Statistics().CountQmcloud);
  EXPECT_EQ(1u, m_peer.Statistics().CountReQmcloud);
  EXPECT_TRUE(m_data.IsDataIdExist(u64DataId));
}

TEST_F(SettlementTest, ARecordThatItsQueueRefusesIsLost) {
  const unsigned long long u64DataId = Send();
  CPlatformFaults::RefuseQueueInserts(true);
  EXPECT_EQ(static_cast<int>(0xE0010003), m_manager.ResultExecData(u64DataId, kCloud25, 0xac7));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step3 Error ResultExecData ReAddDataAction Error iRet[e0010003] SubSendRef lRefCount[1] "
        "result[b0010025] StartTime[6553f200] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] "
        "iMsgType[1] iDataSaveStatus[0] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
        "strCombo[combo]\n"}}));
  EXPECT_EQ(1u, m_peer.Statistics().CountQmcloud);
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(SettlementTest, ARejectedRecordGoesToTheErrorChannelAndIsDropped) {
  m_peer.SetSendSingle(1);
  m_peer.SetSendErrorCount(4);
  EXPECT_EQ(0, m_manager.ResultExecData(Send(), 0x1, 0xac7));
  EXPECT_TRUE(LoggedExactly(
      {{kErrorChannel, 3,
        "*qmlogcache step3 Error ResultExecData result[1] StartTime[6553f200] ReSendCount[0] ui64ACT[ac7] "
        "u64DataId[6553f10000000001] iPriv[1] iMsgType[1] iDataSaveStatus[0] "
        "strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo] "
        "strData[<version=1><dataid=6553f10000000001><priv=1><msgtype=1>"
        "<guid=01234567-89AB-CDEF-0123-456789ABCDEF><product=prod><combo=combo><end=1><msg=data>]"},
       {kMainChannel, 3,
        "*qmlogcache step3 Error ResultExecData DeleteDataAction OK SubSendRef lRefCount[1] result[1] "
        "StartTime[6553f200] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] "
        "iDataSaveStatus[0] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
        "strCombo[combo]\n"}}));
  EXPECT_EQ(1u, m_peer.Statistics().CountRecvFail);
  EXPECT_EQ(0u, m_dataPeer.MapSize());
  EXPECT_EQ(0, m_peer.SendSingle());
  EXPECT_EQ(0, m_peer.SendErrorCount());
}

TEST_F(SettlementTest, ARejectedRecordThatVanishesBeforeItsDeletionIsAnError) {
  const unsigned long long u64DataId = Send();
  // The error channel's line comes between the lookup and the deletion.
  CLogCapture::SetHook([&](const LogLine& line) {
    if (line.strChannel == kErrorChannel) {
      EXPECT_EQ(0, m_data.DeleteDataAction(u64DataId));
    }
  });
  EXPECT_EQ(static_cast<int>(0xA0010042), m_manager.ResultExecData(u64DataId, 0xA0010042, 0xac7));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache step3 Error ResultExecData DeleteDataAction Error iRet[a0010042] SubSendRef lRefCount[1] "
      "result[a0010042] StartTime[6553f200] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] "
      "iMsgType[1] iDataSaveStatus[0] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
      "strCombo[combo]\n"));
  EXPECT_EQ(1u, m_peer.Statistics().CountRecvFail);
}

TEST_F(SettlementTest, CodesNextToTheRetryableOnesReject) {
  for (const uint32_t dwResult : {0xE0010018u, 0xE001001Au, 0xB0010024u, 0xB0010027u, 0xA0010025u}) {
    const unsigned long long u64DataId = SendRecord();
    EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, dwResult, 0)) << dwResult;
    EXPECT_FALSE(m_data.IsDataIdExist(u64DataId)) << dwResult;
  }
  EXPECT_EQ(5u, m_peer.Statistics().CountRecvFail);
}

TEST_F(SettlementTest, AResultForAnUnknownIdOnlyLowersTheInFlightCount) {
  m_peer.SetSendRefCount(3);
  m_peer.SetSendSingle(1);
  m_peer.SetSendErrorCount(9);
  for (const uint32_t dwResult : {0u, kTimeout, 0x77u}) {
    EXPECT_EQ(static_cast<int>(0xA0010042), m_manager.ResultExecData(153, dwResult, 0xff));
  }
  // Token and count stand under each other's label, the id is decimal.
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step3 Error ResultExecData GetExecDataFromMap iRet[a0010042] SubSendRef lRefCount[255] "
        "ui64ACT[2] u64DataId[153] dwResult[0]\n"},
       {kMainChannel, 3,
        "*qmlogcache step3 Error ResultExecData GetExecDataFromMap iRet[a0010042] SubSendRef lRefCount[255] "
        "ui64ACT[1] u64DataId[153] dwResult[e0010019]\n"},
       {kMainChannel, 3,
        "*qmlogcache step3 Error ResultExecData GetExecDataFromMap iRet[a0010042] SubSendRef lRefCount[255] "
        "ui64ACT[0] u64DataId[153] dwResult[77]\n"}}));
  EXPECT_EQ(0, m_peer.SendRefCount());
  EXPECT_EQ(1, m_peer.SendSingle());
  EXPECT_EQ(9, m_peer.SendErrorCount());
  const LogCacheStatistics& stat = m_peer.Statistics();
  EXPECT_EQ(0u, stat.CountSuccess + stat.CountTimeout + stat.CountRecvFail);
}

TEST_F(SettlementTest, ASecondResultFindsNoRecord) {
  const unsigned long long u64DataId = Send();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0, 0));
  EXPECT_EQ(static_cast<int>(0xA0010042), m_manager.ResultExecData(u64DataId, 0, 0));
  EXPECT_EQ(1u, m_peer.Statistics().CountSuccess);
  EXPECT_EQ(0, m_peer.SendRefCount());
}

}  // namespace
