// What the timer thread brings back from the cache directory.
#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <thread>

#include "cache_file_fixture.h"
#include "hang_guard.h"

namespace {

constexpr char kListPrefix[] = "qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[";
constexpr uint64_t kFast = 10000;  // the five minutes pass in thirty milliseconds and what three hundred waits cost
constexpr uint64_t kOldId = 0x6000000000000001;

CacheRow OldRow(uint64_t u64Offset, int iPriv, const std::string& strText) {
  return {kOldId + u64Offset, iPriv, 1, "p", "c", 0, strText};
}

class ReloadTest : public CCacheFileTest {
 protected:
  ReloadTest() { m_clock.SetSleepDivisor(kFast); }
  static std::string ListLine(size_t uCount) { return kListPrefix + std::to_string(uCount) + "]"; }
  void PutFile(const std::vector<CacheRow>& vecRows) {
    std::filesystem::create_directories(m_prefix.CacheDirectory());
    WriteCacheFile(m_prefix.CacheFile(kOtherProducerText), vecRows);
  }
  // Two whole loads have begun and ended from here on.
  void WaitForTwoMoreLoads() { ASSERT_TRUE(WaitForLoads(m_log.Count(kLoaded) + 3)); }
};

TEST_F(ReloadTest, LoadsAtItsStartAndThenEveryThreeHundredSeconds) {
  std::vector<uint64_t> vecSleeps;
  std::atomic<size_t> uLoads{0};
  m_log.SetTap([&](const LogLine& line) {
    if (line.strText.starts_with(kListPrefix)) {
      EXPECT_EQ(line.strText, ListLine(0));
      EXPECT_EQ(line.iLevel, 2);
      vecSleeps.push_back(m_clock.SleepsOf("logcachetimer"));
      ++uLoads;
    }
  });
  BeginLife();
  const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
  while (uLoads < 3 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  m_host.Stop();
  m_log.SetTap(nullptr);
  ASSERT_GE(vecSleeps.size(), 3u);
  EXPECT_EQ(std::vector<uint64_t>(vecSleeps.begin(), vecSleeps.begin() + 3), (std::vector<uint64_t>{0, 300, 600}));
}

TEST_F(ReloadTest, BringsBackTheRowsOfAFileThatAnotherProcessPutThere) {
  BeginConnectedLife();
  ASSERT_TRUE(WaitForLoads(1));
  PutFile({OldRow(0, 0, "<the first text>"), OldRow(1, 3, "it's the second")});
  ASSERT_TRUE(m_router.WaitForSent(2));
  EXPECT_GE(m_log.Count(ListLine(2)), 1u);
  const std::vector<SentMessage> vecSent = m_router.Sent();
  std::map<uint64_t, std::string> mapTexts;
  for (const SentMessage& sent : vecSent) {
    mapTexts[sent.u64DataId] = sent.strText;
  }
  EXPECT_EQ(mapTexts, (std::map<uint64_t, std::string>{{kOldId, "<the first text>"}, {kOldId + 1, "it's the second"}}));
  WaitForTwoMoreLoads();  // which meet records that are in flight
  EXPECT_EQ(m_router.SentCount(), 2u);
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(kOldId, 0)));
  EXPECT_EQ(RowIds(kOtherProducerText), (std::vector<uint64_t>{kOldId + 1}));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(kOldId + 1, 5)));
  EXPECT_TRUE(Rows(kOtherProducerText).empty());
  WaitForTwoMoreLoads();
  EXPECT_EQ(m_router.SentCount(), 2u);
  EXPECT_TRUE(Failed(m_router.DeliverResult(kOldId, 0), kWireUnknownDataId));
}

TEST_F(ReloadTest, DecodesARowThatIsStoredInBase64) {
  PutFile({{kOldId, 1, 2, "", "", 1, "PGE+PG1zZz1iPg=="}});
  BeginConnectedLife();
  ASSERT_TRUE(m_router.WaitForSent(1));
  EXPECT_EQ(m_router.Sent().front().strText, "<a><msg=b>");
}

TEST_F(ReloadTest, ARecordInMemoryIsNeitherDoubledNorReported) {
  BeginLife();  // not connected: the record stays queued
  FileRecord(10102, "once");
  WaitForTwoMoreLoads();
  EXPECT_GE(m_log.Count(ListLine(1)), 1u);
  EXPECT_GE(m_log.Count("qmlogcache CLogCacheData::LoadExecData LowQueueData[0] NormalQueueData[0] HighQueueData[1] "
                        "RealQueueData[0]"),
            1u);
  EXPECT_EQ(m_log.Lines(kLoaded).front().iLevel, 2);
  EXPECT_EQ(m_log.Count("*qmlogcache CLogCacheData"), 0u);
  ASSERT_TRUE(Succeeded(m_router.DeliverConnect()));
  ASSERT_TRUE(m_router.WaitForSent(1));
  WaitForTwoMoreLoads();
  EXPECT_EQ(m_router.SentCount(), 1u);
}

TEST_F(ReloadTest, TakesNoMoreThanTheConfiguredNumberAtATime) {
  m_prefix.Configure("localdatacountlimit = 3\n");
  PutFile({OldRow(0, 0, "a"), OldRow(1, 0, "b"), OldRow(2, 0, "c"), OldRow(3, 0, "d"), OldRow(4, 0, "e")});
  BeginConnectedLife();
  ASSERT_TRUE(m_router.WaitForSent(3));
  WaitForTwoMoreLoads();
  EXPECT_EQ(m_router.SentCount(), 3u);
  for (const LogLine& line : m_log.Lines(kListPrefix)) {
    EXPECT_EQ(line.strText, ListLine(3));
  }
  for (const uint64_t u64Offset : {0U, 1U, 2U}) {
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(kOldId + u64Offset, 0)));
  }
  ASSERT_TRUE(m_router.WaitForSent(5));
  EXPECT_EQ(SentTexts(), (std::vector<std::string>{"a", "b", "c", "d", "e"}));
}

TEST_F(ReloadTest, WhatTheMemoryLimitRefusesIsReportedRowByRow) {
  m_prefix.Configure("datacountlimit = 0\n");  // one record is let in over it
  PutFile({OldRow(0, 2, "a"), OldRow(1, 3, "b"), OldRow(2, 3, "c")});
  BeginLife();
  ASSERT_TRUE(WaitForLoads(1));
  const std::vector<LogLine> vecLines = m_log.Lines("*qmlogcache CLogCacheData::LoadExecData Warn AddDataAction ");
  ASSERT_GE(vecLines.size(), 2u);
  EXPECT_EQ(vecLines[0].strText,
            "*qmlogcache CLogCacheData::LoadExecData Warn AddDataAction iRet[a0010014] u64DataId[6000000000000002] "
            "iPriv[3] iMsgType[1] strPluginId[" +
                std::string(kOtherProducerText) + "] strProduct[p] strCombo[c] strFileName[" +
                m_prefix.CacheFile(kOtherProducerText) + "]");
  EXPECT_EQ(vecLines[0].iLevel, 3);
  EXPECT_EQ(LogField(vecLines[1].strText, "u64DataId"), "6000000000000003");
  EXPECT_EQ(RowIds(kOtherProducerText), (std::vector<uint64_t>{kOldId, kOldId + 1, kOldId + 2}));
}

TEST_F(ReloadTest, LoadsNothingWhileMoreThanTenThousandRecordsAreInMemory) {
  constexpr uint32_t kMost = 10000;
  m_prefix.Configure("dataflowflag = 2\n");
  m_clock.SetSleepDivisor(1);  // no reload comes in between
  BeginLife();
  ASSERT_TRUE(WaitForLoads(1));
  for (uint32_t u = 0; u < kMost; ++u) {
    FileRecord(10100, "x");
  }
  m_clock.SetSleepDivisor(kFast);
  ASSERT_TRUE(WaitForLoads(m_log.Count(kLoaded) + 1));
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheData::LoadExecData m_mapLogExecData size["), 0u);
  FileRecord(10100, "one too many");
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache CLogCacheData::LoadExecData m_mapLogExecData size[10001]"));
  EXPECT_EQ(m_log.Lines("qmlogcache CLogCacheData::LoadExecData m_mapLogExecData size[").front().iLevel, 2);
  const size_t uLoads = m_log.Count(kLoaded);
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache CLogCacheData::LoadExecData m_mapLogExecData size[10001]", 2));
  EXPECT_EQ(m_log.Count(kLoaded), uLoads);
}

TEST_F(ReloadTest, InMemoryOnlyALoadedRecordsRowOutlivesItsDelivery) {
  m_prefix.Configure("dataflowflag = 2\n");
  PutFile({OldRow(0, 1, "comes back")});
  BeginConnectedLife();
  ASSERT_TRUE(m_router.WaitForSent(1));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(kOldId, 0)));
  EXPECT_EQ(RowIds(kOtherProducerText), (std::vector<uint64_t>{kOldId}));
  ASSERT_TRUE(m_router.WaitForSent(2));
  EXPECT_EQ(SentTexts(), (std::vector<std::string>{"comes back", "comes back"}));
}

TEST_F(ReloadTest, ADirectoryThatIsGoneIsReportedAndTriedAgain) {
  BeginConnectedLife();
  ASSERT_TRUE(WaitForLoads(1));
  std::filesystem::remove_all(m_prefix.CacheDirectory());
  ASSERT_TRUE(m_log.WaitForLines("*qmlogcache CLogCacheData::LoadExecData Warn GetCacheData"));
  EXPECT_EQ(m_log.Lines("*qmlogcache CLogCacheData::LoadExecData Warn GetCacheData").front().iLevel, 3);
  const std::vector<LogLine> vecLines = m_log.Lines("*qmlogcache CLogCacheFile::GetCacheData ");
  ASSERT_GE(vecLines.size(), 1u);
  EXPECT_EQ(vecLines[0].strText, "*qmlogcache CLogCacheFile::GetCacheData opendir Error m_strLogCachePath[" +
                                     m_prefix.CacheDirectory() + "]");
  EXPECT_EQ(vecLines[0].iLevel, 3);
  PutFile({OldRow(0, 1, "found")});
  ASSERT_TRUE(m_router.WaitForSent(1));
  EXPECT_EQ(m_router.Sent().front().strText, "found");
}

}  // namespace
