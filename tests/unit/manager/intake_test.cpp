#include <string>

#include "manager/tagged_text.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/manager_fixture.h"

namespace {

using IntakeTest = ManagerTest;

TEST_F(IntakeTest, TheFirstIdIsTheStartTimeAndOne) {
  EXPECT_EQ(0x6553f10000000001ULL, m_manager.GetDataId());
}

TEST_F(IntakeTest, TwoIdsDifferByOneInTheLowerWord) {
  const unsigned long long u64First = m_manager.GetDataId();
  const unsigned long long u64Second = m_manager.GetDataId();
  EXPECT_EQ(u64First + 1, u64Second);
  EXPECT_EQ(u64First >> 32, u64Second >> 32);
}

TEST_F(IntakeTest, TheIdKeepsTheStartTimeWhileTheClockGoesOn) {
  CFakeClock::Advance(1000);
  EXPECT_EQ(0x6553f10000000001ULL, m_manager.GetDataId());
}

TEST_F(IntakeTest, TheSequenceWrapsIntoTheNextUpperWord) {
  m_peer.SetSequenceId(0x7FFFFFFD);
  EXPECT_EQ(0x6553f1007FFFFFFEULL, m_manager.GetDataId());
  EXPECT_EQ(0x6553f10100000001ULL, m_manager.GetDataId());
  EXPECT_EQ(0x6553f10100000002ULL, m_manager.GetDataId());
  EXPECT_EQ(0x6553f101u, m_peer.StartTime());
}

TEST_F(IntakeTest, BuildsTheTaggedTextAndCounts) {
  EXPECT_EQ(0, m_manager.AddExecData(10300, 11, 2, 1, kSenderText, "p", "", "x"));
  const _LogExecData* pRecord = m_dataPeer.Find(kFirstDataId);
  ASSERT_NE(nullptr, pRecord);
  EXPECT_STREQ(
      "<version=1><dataid=6553f10000000001><priv=11><msgtype=2><guid=01234567-89AB-CDEF-0123-456789ABCDEF>"
      "<product=p><combo=><end=1><msg=x>",
      pRecord->strData.c_str());
  const LogCacheStatistics& stat = m_peer.Statistics();
  EXPECT_EQ(1u, stat.CountNormal);
  EXPECT_EQ(1u, stat.CountPlugin);
  EXPECT_EQ(1u, stat.CountGuid);
  EXPECT_EQ(1u, stat.CountAll);
  EXPECT_EQ(0u, stat.CountLow + stat.CountHigh + stat.CountReal + stat.CountServer + stat.CountCloudTag +
                    stat.CountCombo + stat.CountAddFail);
}

TEST_F(IntakeTest, TagValuesGoInWithoutEscaping) {
  const CPString strText =
      BuildTaggedText(0xABCDEF, -3, 7, "g<>", "<combo=evil>", "%s%n", std::string_view("line\n<msg=\"%d\">", 15));
  EXPECT_STREQ(
      "<version=1><dataid=abcdef><priv=-3><msgtype=7><guid=g<>><product=<combo=evil>><combo=%s%n><end=1>"
      "<msg=line\n<msg=\"%d\">>",
      strText.c_str());
}

TEST_F(IntakeTest, TheTaggedTextEndsDataAtItsFirstZeroByte) {
  EXPECT_EQ("<version=1><dataid=1><priv=0><msgtype=1><guid=g><product=><combo=><end=1><msg=ab>",
            BuildTaggedText(1, 0, 1, "g", "", "", std::string_view("ab\0cd", 5)).View());
  EXPECT_EQ("<version=1><dataid=1><priv=0><msgtype=1><guid=g><product=><combo=><end=1><msg=>",
            BuildTaggedText(1, 0, 1, "g", "", "", std::string_view("\0", 1)).View());
}

TEST_F(IntakeTest, LogsAFiledRecordWithItsRawData) {
  m_peer.SetSaveCacheFlag(1);
  EXPECT_EQ(0, m_manager.AddExecData(10300, 2, 3, 0, kSenderText, "prod", "comb", "raw data"));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 2,
        "qmlogcache step1 OK AddDataAction bForceSave[1] i64MsgType[283c] u64DataId[6553f10000000001] iPriv[2] "
        "iMsgType[3] iDataSaveStatus[0] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
        "strCombo[comb] strData[raw data]"}}));
}

TEST_F(IntakeTest, LogsARefusedRecordWithItsRawDataAndCountsItAllTheSame) {
  m_dataPeer.SetDataCountLimit(0);
  AddRecord();
  CLogCapture::Reset();
  EXPECT_EQ(static_cast<int>(0xA0010014),
            m_manager.AddExecData(10103, 3, 1, 1, kSenderText, "prod", "comb", "raw data"));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache step1 Error AddDataAction iRet[a0010014] bForceSave[0] i64MsgType[2777] "
        "u64DataId[6553f10000000002] iPriv[3] iMsgType[1] iDataSaveStatus[1] "
        "strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[comb] strData[raw data]"}}));
  const LogCacheStatistics& stat = m_peer.Statistics();
  EXPECT_EQ(1u, stat.CountAddFail);
  EXPECT_EQ(1u, stat.CountReal);
  EXPECT_EQ(2u, stat.CountServer);
  EXPECT_EQ(2u, stat.CountCombo);
  EXPECT_EQ(2u, stat.CountAll);
  EXPECT_EQ(1u, m_dataPeer.MapSize());
}

TEST_F(IntakeTest, ARecordThatTheQueueRefusesIsGone) {
  CPlatformFaults::RefuseQueueInserts(true);
  EXPECT_EQ(static_cast<int>(0xE0010003), m_manager.AddExecData(10100, 0, 1, 1, kSenderText, "prod", "comb", "raw"));
  EXPECT_TRUE(
      LoggedOnce(kMainChannel, 3,
                 "*qmlogcache step1 Error AddDataAction iRet[e0010003] bForceSave[0] i64MsgType[2774] "
                 "u64DataId[6553f10000000001] iPriv[0] iMsgType[1] iDataSaveStatus[1] "
                 "strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[comb] strData[raw]"));
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(IntakeTest, ARecordWithoutMemoryIsRefused) {
  const CAllocationFault fault;
  EXPECT_EQ(static_cast<int>(0xE0010003), m_manager.AddExecData(10100, 0, 1, 1, kSenderText, "", "", "raw"));
  EXPECT_EQ(1u, m_peer.Statistics().CountAddFail);
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(IntakeTest, AnUnlistedPriorityIsFiledAndCountedUnderNone) {
  EXPECT_EQ(0, m_manager.AddExecData(10300, 5, 1, 1, kSenderText, "p", "c", "x"));
  const LogCacheStatistics& stat = m_peer.Statistics();
  EXPECT_EQ(0u, stat.CountLow + stat.CountNormal + stat.CountHigh + stat.CountReal);
  EXPECT_EQ(1u, stat.CountAll);
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
}

}  // namespace
