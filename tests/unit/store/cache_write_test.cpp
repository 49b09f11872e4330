// Single records and their rows: when one is written, when it goes, and what a failure leaves.
#include <filesystem>
#include <string>

#include "platform/status_codes.h"
#include "tests/unit/store/store_fixture.h"

namespace {

using CacheWriteTest = StoreTest;

TEST_F(CacheWriteTest, ARecordIsWrittenAtIntakeWithAllItsFields) {
  Open();
  EXPECT_EQ(0, Data().AddDataAction(0, 7, 13, 2, 1, kSenderText, "it's", "co'mb", "line 1\nit's 2"));
  EXPECT_EQ(2, Status(7));
  EXPECT_EQ(1u, Peer().QueueCount(3));
  EXPECT_EQ((std::vector<std::string>{"7|13|2|it's|co'mb|0|line 1\nit's 2|NULL|NULL"}),
            CShell(CacheFile()).Run("select * from logcache"));
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(CacheWriteTest, AnUnknownFlowFlagWritesAtIntakeToo) {
  Open("dataflowflag = 3\n");
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(2, Status(1));
  EXPECT_EQ((DataIds{1}), Rows());
}

TEST_F(CacheWriteTest, FlowAtSaveWritesAtIntakeOnlyWhenForced) {
  Open("dataflowflag = 1\n");
  EXPECT_EQ(0, Data().AddDataAction(0, 1, 1, 1, 1, kSenderText, "prod", "comb", "text"));
  EXPECT_EQ(1, Status(1));
  EXPECT_EQ(1u, Peer().QueueCount(1));
  EXPECT_FALSE(Exists(CacheFile()));
  EXPECT_EQ(0, Data().AddDataAction(1, 2, 1, 1, 1, kSenderText, "prod", "comb", "text"));
  EXPECT_EQ(2, Status(2));
  EXPECT_EQ(2u, Peer().QueueCount(1));
  EXPECT_EQ((DataIds{2}), Rows());
}

TEST_F(CacheWriteTest, MemoryOnlyFlowNeverWrites) {
  Open(kMemoryOnlyConfig);
  EXPECT_EQ(0, Data().AddDataAction(1, 1, 1, 1, 1, kSenderText, "prod", "comb", "text"));
  EXPECT_EQ(0, Status(1));
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(0, Data().AddCacheData(Peer().Find(1)));
  EXPECT_EQ(0, Data().ReAddDataAction(1));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ(0, Status(1));
  EXPECT_EQ(1u, Peer().QueueCount(1));
  EXPECT_TRUE(std::filesystem::is_empty(CachePath()));
}

TEST_F(CacheWriteTest, ARecordThatIsNotToBeSavedNeverReachesItsFile) {
  Open();
  EXPECT_EQ(0, Data().AddDataAction(1, 1, 1, 1, 0, kSenderText, "prod", "comb", "text"));
  EXPECT_EQ(0, Data().ReAddDataAction(1));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ(0, Status(1));
  EXPECT_EQ(0, Data().DeleteDataAction(1));
  EXPECT_TRUE(std::filesystem::is_empty(CachePath()));
}

TEST_F(CacheWriteTest, DeletingAWrittenRecordDeletesItsRowOnly) {
  Open();
  for (const unsigned long long u64DataId : {1ULL, 2ULL, 3ULL}) {
    EXPECT_EQ(0, Add(u64DataId));
  }
  EXPECT_EQ(0, Data().DeleteDataAction(2));
  EXPECT_EQ((DataIds{1, 3}), Rows());
  EXPECT_EQ((DataIds{1, 3}), Peer().Ids());
}

TEST_F(CacheWriteTest, DeletingAnUnwrittenRecordLeavesItsFileAlone) {
  Open("dataflowflag = 1\n");
  EXPECT_EQ(0, Add(1));
  // A row under the same id, which only a deletion would touch.
  EXPECT_EQ(0, Data().GetLogCacheFile(kSenderText)->AddCacheData(1, 1, 1, "prod", "comb", "other", 0));
  const size_t uStatements = CStorageFaults::Statements("").size();
  EXPECT_EQ(0, Data().DeleteDataAction(1));
  EXPECT_EQ(uStatements, CStorageFaults::Statements("").size());
  EXPECT_EQ((DataIds{1}), Rows());
}

TEST_F(CacheWriteTest, ARecordLeavesMemoryAlsoWhenItsRowCannotBeDeleted) {
  Open();
  EXPECT_EQ(0, Add(1));
  CStorageFaults::SetExecHook(
      [](std::string_view svSql) { return svSql.starts_with("delete from") ? SQLITE_IOERR : SQLITE_OK; });
  EXPECT_EQ(static_cast<int>(0xA0010025), Data().DeleteDataAction(1));
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_EQ((DataIds{1}), Rows());
}

TEST_F(CacheWriteTest, QueueingAgainWritesAnUnwrittenRecordOnce) {
  Open("dataflowflag = 1\n");
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(0, Data().ReAddDataAction(1));
  EXPECT_EQ(2, Status(1));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(0, Data().ReAddDataAction(1));
  EXPECT_EQ(1u, Inserts());
  EXPECT_EQ(2u, Peer().Find(1)->ReSendCount);
}

TEST_F(CacheWriteTest, TheSweepWritesUnwrittenRecords) {
  Open("dataflowflag = 1\n");
  for (const unsigned long long u64DataId : {1ULL, 2ULL, 3ULL}) {
    EXPECT_EQ(0, Add(u64DataId));
  }
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(2u, Take());
  CFakeClock::Advance(14400);
  Data().RepeatExecDataMap();
  EXPECT_EQ((DataIds{1, 2}), Rows());
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids(2));
  EXPECT_EQ((DataIds{3}), Peer().Ids(1));  // still queued: not swept
  EXPECT_EQ(3u, Peer().QueueCount(1));
}

TEST_F(CacheWriteTest, AFailedWriteAtIntakeKeepsTheRecordPendingAndQueued) {
  Open();
  EXPECT_EQ(0, Add(1));
  CLogCapture::Reset();
  {
    const CFailingInserts fault;
    EXPECT_EQ(0, Data().AddDataAction(0, 0xab, 12, 3, 1, kSenderText, "prod", "comb", "text"));
  }
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache InsertExecData Error iRet[a0010023] StartTime[0] ReSendCount[0] u64DataId[ab] iPriv[12] iMsgType[3] "
      "iDataSaveStatus[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[comb]"));
  EXPECT_EQ(1, Status(0xab));
  EXPECT_EQ(1u, Peer().QueueCount(2));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((DataIds{1, 0xab}), Rows());
}

TEST_F(CacheWriteTest, AFailedWriteWhenQueuedAgainIsLoggedWithTheFieldsBefore) {
  Open("dataflowflag = 1\n");
  EXPECT_EQ(0, Data().AddDataAction(1, 1, 1, 1, 1, kSenderText, "prod", "comb", "text"));
  EXPECT_EQ(0, Data().AddDataAction(0, 0xab, 3, 2, 1, kSenderText, "prod", "comb", "text"));
  EXPECT_EQ(0xabu, Take());
  Peer().Find(0xab)->ReSendCount = 4;
  CLogCapture::Reset();
  {
    const CFailingInserts fault;
    EXPECT_EQ(0, Data().ReAddDataAction(0xab));
  }
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache ReInsertExecData Error iRet[a0010023] StartTime[6553f100] ReSendCount[4] u64DataId[ab] iPriv[3] "
      "iMsgType[2] iDataSaveStatus[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
      "strCombo[comb]"));
  EXPECT_EQ(1, Status(0xab));
  EXPECT_EQ(5u, Peer().Find(0xab)->ReSendCount);
  EXPECT_EQ(0u, Peer().Find(0xab)->StartTime);
  EXPECT_EQ(1u, Peer().QueueCount(3));
  EXPECT_EQ((DataIds{1}), Rows());
}

TEST_F(CacheWriteTest, ARecordThatASoundFileRefusesTwiceCountsAsWritten) {
  Open();
  EXPECT_EQ(0, Add(1));
  CLogCapture::Reset();
  CStorageFaults::SetExecHook(
      [](std::string_view svSql) { return svSql.starts_with("insert") ? SQLITE_TOOBIG : SQLITE_OK; });
  EXPECT_EQ(0, Add(2));
  CStorageFaults::SetExecHook(nullptr);
  EXPECT_EQ(2, Status(2));
  EXPECT_EQ(2u, Peer().QueueCount(1));
  EXPECT_EQ((DataIds{1}), Rows());
  for (const LogLine& line : CLogCapture::Lines()) {
    EXPECT_EQ(std::string::npos, line.strText.find("InsertExecData")) << line.strText;
  }
  EXPECT_EQ(0, Data().DeleteDataAction(2));
}

TEST_F(CacheWriteTest, ADamagedFileIsReplacedAndTheRecordWritten) {
  Open();
  EXPECT_EQ(0, Add(1));
  DamageRows(CacheFile());
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ(2, Status(2));
  EXPECT_EQ((DataIds{2}), Rows());
  EXPECT_TRUE(Exists(CachePath() + kSenderText + "1.db.zip"));
  // The first record lives on in memory; its row is gone, which is no error when it is delivered.
  EXPECT_EQ(0, Data().DeleteDataAction(1));
}

TEST_F(CacheWriteTest, ARecordThatItsQueueRefusesLeavesNoRow) {
  Open();
  CPlatformFaults::RefuseQueueInserts(true);
  EXPECT_EQ(static_cast<int>(0xE0010003), Add(1));
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_EQ(1u, Inserts());
  EXPECT_TRUE(Rows().empty());
}

TEST_F(CacheWriteTest, ARecordThatItsQueueRefusesAgainLeavesNoRow) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(1u, Take());
  CPlatformFaults::RefuseQueueInserts(true);
  EXPECT_EQ(static_cast<int>(0xE0010003), Data().ReAddDataAction(1));
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_TRUE(Rows().empty());
}

TEST_F(CacheWriteTest, ADuplicateLeavesTheRowOfTheFirst) {
  Open();
  EXPECT_EQ(0, Add(1, kSenderText, "first"));
  EXPECT_EQ(0, Add(1, kSenderText, "second"));
  EXPECT_EQ(1u, Inserts());
  EXPECT_EQ((std::vector<std::string>{"first"}), CShell(CacheFile()).Run("select data from logcache"));
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(CacheWriteTest, AddCacheDataWritesAPendingRecordAndMarksIt) {
  Open();
  AddPending(1, 1);
  EXPECT_EQ(0, Data().AddCacheData(Peer().Find(1)));
  EXPECT_EQ(2, Status(1));
  EXPECT_EQ(0, Data().AddCacheData(Peer().Find(1)));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_EQ(1u, Inserts());
}

TEST_F(CacheWriteTest, AStoreThatWasNeverConfiguredWritesNothingIntoTheWorkingDirectory) {
  CLogCacheData data;
  EXPECT_EQ(0, data.AddDataAction(0, 1, 1, 1, 1, kSenderText, "prod", "comb", "text"));
  EXPECT_EQ(0, data.AddDataAction(0, 2, 1, 1, 2, kSenderText, "prod", "comb", "text"));
  EXPECT_EQ(1, data.SaveCacheToDb());
  EXPECT_EQ(1, CLogCacheDataPeer(data).Find(1)->iDataSaveStatus.Load());
  EXPECT_EQ(kStatusNoObject, data.DeleteDataAction(2));
  EXPECT_FALSE(Exists(std::string(kSenderText) + ".db"));
}

}  // namespace
