// Records that are written in a save: at stop, and when sends keep failing.
#include <sqlite3.h>

#include <algorithm>
#include <thread>

#include "cache_file_fixture.h"

namespace {

constexpr char kOddData[] = "it's \"odd\"; %s\n\xc3\xa9 <x>";

class SaveTest : public CCacheFileTest {
 protected:
  SaveTest() { m_prefix.Configure("dataflowflag = 1\n"); }
  // What the line of a record's intake says of the save flag.
  std::string ForceSaveOf(uint64_t u64DataId) {
    for (const LogLine& line : m_log.Lines("qmlogcache step1 OK AddDataAction ")) {
      if (LogField(line.strText, "u64DataId") == ToHex(u64DataId)) {
        return LogField(line.strText, "bForceSave");
      }
    }
    return {};
  }
  // A failure of the record that is in flight, after which it or another one is sent.
  void FailLastSent() {
    const std::vector<SentMessage> vecSent = m_router.Sent();
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(vecSent.back().u64DataId, kWireTimeout)));
    ASSERT_TRUE(m_router.WaitForSent(vecSent.size() + 1));
  }
};

TEST_F(SaveTest, NothingIsWrittenAtIntakeAndStopWritesEverythingPendingInOneSave) {
  BeginConnectedLife();
  ASSERT_TRUE(WaitForLoads(1));
  FileRecord(10101, "delivered before the stop");
  ASSERT_TRUE(m_router.WaitForSent(1));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  FileRecord(10101, kOddData);
  ASSERT_TRUE(Succeeded(m_router.Deliver(10213, kOtherProducer, "two")));
  ASSERT_TRUE(Succeeded(m_router.Deliver(10300, kProducer, ComboPayload({5, 2, 1, "p'", "c", "three"}))));
  ASSERT_TRUE(m_router.WaitForSent(4));
  EXPECT_EQ(NamesIn(m_prefix.CacheDirectory()), std::vector<std::string>{});
  EXPECT_EQ(m_log.Count(kSaveBegin), 0u);
  m_host.Stop();
  ExpectLine(6, kSaveBegin);
  ExpectLine(6, kSaveEnd);
  EXPECT_EQ(Rows(),
            (std::vector<CacheRow>{{IdOf(2), 1, 1, "", "", 0, ExpectedText({IdOf(2), 1, 1, "", "", kOddData})},
                                   {IdOf(4), 2, 5, "p'", "c", 0, ExpectedText({IdOf(4), 2, 5, "p'", "c", "three"})}}));
  EXPECT_EQ(RowIds(kOtherProducerText), (std::vector<uint64_t>{IdOf(3)}));
}

TEST_F(SaveTest, TheNextLifeSendsTheSameTextsUnderTheOldIds) {
  BeginConnectedLife();
  FileRecord(10103, kOddData);
  ASSERT_TRUE(m_router.WaitForSent(1));
  ASSERT_TRUE(Succeeded(m_router.Deliver(10300, kProducer, ComboPayload({5, 12, 1, "p'", "c", "two"}))));
  ASSERT_TRUE(m_router.WaitForSent(2));
  ASSERT_TRUE(Succeeded(m_router.Deliver(10200, kOtherProducer, "three")));
  ASSERT_TRUE(m_router.WaitForSent(3));
  BeginNextLife();
  ASSERT_TRUE(m_router.WaitForSent(6));
  std::vector<std::string> vecTexts = SentTexts();
  std::sort(vecTexts.begin() + 3, vecTexts.end());
  std::sort(vecTexts.begin(), vecTexts.begin() + 3);
  EXPECT_TRUE(std::equal(vecTexts.begin(), vecTexts.begin() + 3, vecTexts.begin() + 3));
  for (const uint32_t uSequence : {1U, 2U, 3U}) {
    EXPECT_TRUE(Succeeded(m_router.DeliverResult(IdOf(uSequence), 0))) << uSequence;
  }
  EXPECT_TRUE(Rows().empty());
  EXPECT_TRUE(Rows(kOtherProducerText).empty());
  m_host.EndLife();
  m_log.Reset();
  BeginNextLife();
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[0]"));
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(7));
  EXPECT_EQ(m_router.Sent().back().u64DataId, IdOf(1, kFirstLife + 2));  // and nothing of the lives before
}

TEST_F(SaveTest, RecordsThatWereNeverSentGoOnInTheNextLifeByPriority) {
  BeginLife();
  FileRecord(10100, "low");
  FileRecord(10113, "real-time");
  FileRecord(10202, "high");
  m_host.EndLife();
  ASSERT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1), IdOf(2), IdOf(3)}));
  m_log.Reset();  // the first life's own loads met the same queues
  m_clock.Advance(1);
  BeginLife();
  ASSERT_TRUE(
      m_log.WaitForLines("qmlogcache CLogCacheData::LoadExecData LowQueueData[1] NormalQueueData[0] "
                         "HighQueueData[1] RealQueueData[1]"));
  ASSERT_TRUE(Succeeded(m_router.DeliverConnect()));
  ASSERT_TRUE(m_router.WaitForSent(3));
  EXPECT_EQ(SentTexts(), (std::vector<std::string>{ExpectedText({IdOf(2), 13, 1, "", "", "real-time"}),
                                                   ExpectedText({IdOf(3), 2, 2, "", "", "high"}),
                                                   ExpectedText({IdOf(1), 0, 1, "", "", "low"})}));
}

TEST_F(SaveTest, ALargeSaveWritesEveryRecordOnce) {
  constexpr uint32_t kRecords = 1203;  // two full batches and a rest
  BeginLife();
  std::vector<uint64_t> vecIds;
  for (uint32_t u = 1; u <= kRecords; ++u) {
    FileRecord(10100, std::to_string(u) + "'");
    vecIds.push_back(IdOf(u));
  }
  m_host.Stop();
  EXPECT_EQ(RowIds(), vecIds);
}

TEST_F(SaveTest, AStopAfterAStopWritesNothingTwice) {
  BeginConnectedLife();
  FileRecord(10100, "once");
  m_host.Stop();
  m_host.Start();
  FileRecord(10100, "later");
  m_host.Stop();
  EXPECT_EQ(m_log.Count(kSaveEnd), 2u);
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1), IdOf(2)}));
  ExpectNoWarning();
}

TEST_F(SaveTest, ARecordThatIsQueuedAgainIsWrittenThen) {
  BeginConnectedLife();
  FileRecord(10103, "again");
  ASSERT_TRUE(m_router.WaitForSent(1));
  EXPECT_TRUE(Rows().empty());
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), kWireTimeout)));
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1)}));
  ASSERT_TRUE(m_router.WaitForSent(2));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  EXPECT_TRUE(Rows().empty());
}

TEST_F(SaveTest, MoreThanSixteenFailuresWriteWhatIsPendingAndWhatComes) {
  constexpr int kFailuresBeforeSave = 16;
  m_clock.SetEventDivisor(1000);  // of the second that a send is then put off
  BeginConnectedLife();
  FileRecord(10103, "fails");
  ASSERT_TRUE(m_router.WaitForSent(1));
  for (int i = 1; i <= kFailuresBeforeSave; ++i) {
    FailLastSent();
  }
  FileRecord(10100, "waits");  // the gate is shut while the first one is in flight
  ASSERT_TRUE(Succeeded(m_router.Deliver(10100, kOtherProducer, "waits, too")));
  EXPECT_EQ(m_log.Count(kSaveBegin), 0u);
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1)}));  // written when it was queued again
  EXPECT_TRUE(Rows(kOtherProducerText).empty());
  EXPECT_EQ(ForceSaveOf(IdOf(2)), "0");

  FailLastSent();
  ASSERT_TRUE(m_log.WaitForLines(kSaveEnd));
  ExpectLine(6, kSaveBegin);
  ExpectLine(6, kSaveEnd);
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1), IdOf(2)}));
  EXPECT_EQ(RowIds(kOtherProducerText), (std::vector<uint64_t>{IdOf(3)}));
  FileRecord(10100, "comes");
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1), IdOf(2), IdOf(4)}));
  EXPECT_EQ(ForceSaveOf(IdOf(4)), "1");
  FailLastSent();
  EXPECT_EQ(m_log.Count(kSaveBegin), 1u);  // once for each stretch of failures

  const size_t uSent = m_router.SentCount();
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(m_router.Sent().back().u64DataId, 0)));
  ASSERT_TRUE(m_router.WaitForSent(uSent + 3));  // the others leave together: the gate is back in its normal mode
  FileRecord(10100, "is not written");
  EXPECT_EQ(ForceSaveOf(IdOf(5)), "0");
  EXPECT_EQ(Rows().size() + Rows(kOtherProducerText).size(), 3u);
  const std::vector<uint64_t> vecIds = RowIds();
  EXPECT_EQ(std::count(vecIds.begin(), vecIds.end(), IdOf(5)), 0);
}

TEST_F(SaveTest, AStopWhileASaveRunsWritesEveryRecordOnce) {
  constexpr int kFailuresBeforeSave = 16;
  m_clock.SetEventDivisor(1000);
  BeginConnectedLife();
  ASSERT_TRUE(WaitForLoads(1));
  FileRecord(10103, "fails");
  ASSERT_TRUE(m_router.WaitForSent(1));
  for (int i = 1; i <= kFailuresBeforeSave; ++i) {
    FailLastSent();
  }
  FileRecord(10100, "waits");
  FileRecord(10100, "waits, too");
  // The operator's shell writes to the file; the save waits for it.
  sqlite3* pShell = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(m_prefix.CacheFile(kProducerText).c_str(), &pShell));
  sqlite3_busy_timeout(pShell, 60000);
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(pShell, "begin immediate", nullptr, nullptr, nullptr));
  // The save holds the store's lock, for which the result may have to wait, too.
  std::thread result([this] { EXPECT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), kWireTimeout))); });
  const bool bSaves = m_log.WaitForLines(kSaveBegin);
  EXPECT_EQ(m_log.Count(kSaveEnd), 0u);
  std::thread stop([this] { m_host.Stop(); });
  // No further: a stop waits for the result, which may wait for the save.
  const bool bStops = m_log.WaitForLines("qmlogcache CLogCacheMgr::Stop Begin");
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(pShell, "commit", nullptr, nullptr, nullptr));
  EXPECT_EQ(SQLITE_OK, sqlite3_close(pShell));
  result.join();
  stop.join();
  EXPECT_TRUE(bSaves);
  EXPECT_TRUE(bStops);
  EXPECT_EQ(m_log.Count(kSaveEnd), 2u);
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1), IdOf(2), IdOf(3)}));
}

}  // namespace
