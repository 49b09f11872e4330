#include "host/status/component_statistics.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/log.h"
#include "status_test_support.h"

namespace {

const std::string kLine =
    "qmlogcache CLogCacheMgr::PrintfStat StartTime[6a1b2c3d] SequenceId[ff] SendRefCount[3] SendSingle[1] "
    "SaveCacheToDb[0] SendErrorCount[18] CountAll[1000] CountPlugin[1] CountServer[999] CountCloudTag[0] CountLow[10] "
    "CountNormal[20] CountHigh[30] CountReal[40] CountGuid[5] CountCombo[6] CountSuccess[700] CountAddFail[11] "
    "CountSendFail[12] CountRecvFail[13] CountTimeout[14] CountQmcloud[15] CountReTimeout[16] CountReQmcloud[17] "
    "mapLogCacheFile[2] mapLogExecData[250] LowQueueData[1] NormalQueueData[2] HighQueueData[3] RealQueueData[4]";

TEST(ComponentStatisticsTest, ReadsTheLineOfTheComponent) {
  const std::optional<ComponentStatistics> optRead = ReadComponentStatistics(kLine);
  ASSERT_TRUE(optRead);
  EXPECT_EQ(optRead->u64MemoryRecords, 250U);
  EXPECT_EQ(optRead->aQueued, (std::array<uint64_t, 4>{1, 2, 3, 4}));
  EXPECT_TRUE(optRead->bSingleSend);
  EXPECT_EQ(optRead->u64FailuresInRow, 18U);
  EXPECT_EQ(optRead->u64StoreFailures, 11U);
  EXPECT_EQ(optRead->u64SendFailures, 12U);
  EXPECT_EQ(optRead->aTimedOut, (std::array<uint64_t, 2>{14, 16}));
  EXPECT_EQ(optRead->aTurnedBack, (std::array<uint64_t, 2>{15, 17}));
}

TEST(ComponentStatisticsTest, TakesNoLineThatIsNotWhole) {
  EXPECT_FALSE(ReadComponentStatistics(""));
  EXPECT_FALSE(ReadComponentStatistics("qmlogcache CLogCacheMgr::Start"));
  EXPECT_FALSE(ReadComponentStatistics("x" + kLine));
  for (size_t uLength = 0; uLength < kLine.size(); ++uLength) {
    EXPECT_FALSE(ReadComponentStatistics(kLine.substr(0, uLength))) << uLength;
  }
  std::string strNoNumber = kLine;
  strNoNumber.replace(strNoNumber.find("CountAddFail[11]"), 16, "CountAddFail[-1]");
  EXPECT_FALSE(ReadComponentStatistics(strNoNumber));
}

TEST(ComponentStatisticsTest, ListensToTheComponentsChannel) {
  const CStatusDirectory directory;
  ASSERT_EQ(QmLogConfigure(directory.Path().c_str(), 1U << kLogLifecycle, 1U << 20, 2), 0);
  void* const hComponent = LogInit("qmlogcache");
  void* const hOther = LogInit("qmhost");
  {
    const CComponentStatistics statistics;
    LogPrintStr(hOther, kLogLifecycle, kLine.c_str());
    LogPrintStr(hComponent, kLogLifecycle, "qmlogcache CLogCacheMgr::Start");
    EXPECT_FALSE(statistics.Latest());
    LogPrint(hComponent, kLogLifecycle, "%s", kLine.c_str());
    ASSERT_TRUE(statistics.Latest());
    EXPECT_EQ(statistics.Latest()->u64MemoryRecords, 250U);
    EXPECT_GT(statistics.Latest()->time.time_since_epoch().count(), 0);
  }
  LogPrintStr(hComponent, kLogLifecycle, kLine.c_str());
  LogUninit(hComponent);
  LogUninit(hOther);
}

}  // namespace
