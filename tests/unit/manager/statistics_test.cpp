#include "manager/statistics.h"

#include "tests/support/manager_fixture.h"

namespace {

using StatisticsTest = ManagerTest;

TEST_F(StatisticsTest, AFreshManagerPrintsZeros) {
  m_manager.PrintfStat();
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 6,
        "qmlogcache CLogCacheMgr::PrintfStat StartTime[6553f100] SequenceId[0] SendRefCount[0] SendSingle[0] "
        "SaveCacheToDb[0] SendErrorCount[0] CountAll[0] CountPlugin[0] CountServer[0] CountCloudTag[0] CountLow[0] "
        "CountNormal[0] CountHigh[0] CountReal[0] CountGuid[0] CountCombo[0] CountSuccess[0] CountAddFail[0] "
        "CountSendFail[0] CountRecvFail[0] CountTimeout[0] CountQmcloud[0] CountReTimeout[0] CountReQmcloud[0] "
        "mapLogCacheFile[0] mapLogExecData[0] LowQueueData[0] NormalQueueData[0] HighQueueData[0] "
        "RealQueueData[0]"}}));
}

TEST_F(StatisticsTest, EachFieldStandsUnderItsName) {
  m_peer.SetSequenceId(0xabc);
  m_peer.SetSendRefCount(-2);
  m_peer.SetSendSingle(3);
  m_peer.SetSaveCacheFlag(4);
  m_peer.SetSendErrorCount(5);
  LogCacheStatistics& stat = m_peer.Statistics();
  stat.CountAll = 101;
  stat.CountPlugin = 102;
  stat.CountServer = 103;
  stat.CountCloudTag = 104;
  stat.CountLow = 105;
  stat.CountNormal = 106;
  stat.CountHigh = 107;
  stat.CountReal = 108;
  stat.CountGuid = 109;
  stat.CountCombo = 110;
  stat.CountSuccess = 111;
  stat.CountAddFail = 112;
  stat.CountSendFail = 113;
  stat.CountRecvFail = 114;
  stat.CountTimeout = 115;
  stat.CountQmcloud = 116;
  stat.CountReTimeout = 117;
  stat.CountReQmcloud = 0xFFFFFFFFFFFFFFFFULL;
  m_manager.PrintfStat();
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 6,
        "qmlogcache CLogCacheMgr::PrintfStat StartTime[6553f100] SequenceId[abc] SendRefCount[-2] SendSingle[3] "
        "SaveCacheToDb[4] SendErrorCount[5] CountAll[101] CountPlugin[102] CountServer[103] CountCloudTag[104] "
        "CountLow[105] CountNormal[106] CountHigh[107] CountReal[108] CountGuid[109] CountCombo[110] "
        "CountSuccess[111] CountAddFail[112] CountSendFail[113] CountRecvFail[114] CountTimeout[115] "
        "CountQmcloud[116] CountReTimeout[117] CountReQmcloud[18446744073709551615] mapLogCacheFile[0] "
        "mapLogExecData[0] LowQueueData[0] NormalQueueData[0] HighQueueData[0] RealQueueData[0]"}}));
}

TEST_F(StatisticsTest, CountsAnIntakeByPriorityKindAndNames) {
  struct Row {
    int iPriv;
    int iMsgType;
    const char* pszProduct;
    const char* pszCombo;
  };
  const Row aRows[] = {{0, 1, "", ""},    {10, 1, "p", "c"}, {1, 2, "p", ""},   {11, 2, "", "c"}, {2, 3, "p", "c"},
                       {12, 3, "p", "c"}, {3, 1, "p", "c"},  {13, 1, "p", "c"}, {5, 9, "p", "c"}};
  for (const Row& row : aRows) {
    EXPECT_EQ(0,
              m_manager.AddExecData(10300, row.iPriv, row.iMsgType, 1, kSenderText, row.pszProduct, row.pszCombo, "x"));
  }
  const LogCacheStatistics& stat = m_peer.Statistics();
  EXPECT_EQ(9u, stat.CountAll);
  EXPECT_EQ(2u, stat.CountLow);
  EXPECT_EQ(2u, stat.CountNormal);
  EXPECT_EQ(2u, stat.CountHigh);
  EXPECT_EQ(2u, stat.CountReal);
  EXPECT_EQ(4u, stat.CountServer);
  EXPECT_EQ(2u, stat.CountPlugin);
  EXPECT_EQ(2u, stat.CountCloudTag);
  EXPECT_EQ(3u, stat.CountGuid);
  EXPECT_EQ(6u, stat.CountCombo);
  EXPECT_EQ(0u, stat.CountAddFail);
}

}  // namespace
