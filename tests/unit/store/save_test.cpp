// The save of all pending records.
#include <algorithm>
#include <string>

#include "tests/unit/store/store_fixture.h"

namespace {

// Rows of each insert so far.
std::vector<size_t> RowsPerInsert() {
  std::vector<size_t> vecRows;
  for (const std::string& strSql : CStorageFaults::Statements("insert")) {
    size_t uRows = 1;
    for (size_t uAt = strSql.find("), ("); uAt != std::string::npos; uAt = strSql.find("), (", uAt + 1)) {
      ++uRows;
    }
    vecRows.push_back(uRows);
  }
  return vecRows;
}

using SaveTest = StoreTest;

TEST_F(SaveTest, WritesEachSendersPendingRecordsInOneInsert) {
  Open("dataflowflag = 1\n");
  EXPECT_EQ(0, Add(3));
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(4, kOtherSender));
  EXPECT_EQ(0, Add(2, kOtherSender));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((DataIds{1, 3}), Rows());
  EXPECT_EQ((DataIds{2, 4}), Rows(kOtherSender));
  EXPECT_EQ((DataIds{1, 2, 3, 4}), Peer().Ids(2));
  EXPECT_EQ((std::vector<size_t>{2, 2}), RowsPerInsert());
  const std::vector<std::string> vecInserts = CStorageFaults::Statements("insert");
  EXPECT_LT(vecInserts[0].find("(1, "), vecInserts[0].find("(3, "));
  EXPECT_LT(vecInserts[1].find("(2, "), vecInserts[1].find("(4, "));
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(SaveTest, KeepsEveryFieldOfARecord) {
  Open("dataflowflag = 1\n");
  EXPECT_EQ(0, Data().AddDataAction(0, 7, 13, 2, 1, kSenderText, "it's", "co'mb", "it's data"));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((std::vector<std::string>{"7|13|2|it's|co'mb|0|it's data|NULL|NULL"}),
            CShell(CacheFile()).Run("select * from logcache"));
}

TEST_F(SaveTest, PassesOverRecordsThatAreWrittenOrNotToBe) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Data().AddDataAction(0, 2, 1, 1, 0, kSenderText, "prod", "comb", "text"));
  AddPending(3, 3);
  auto* pWithoutFile = new _LogExecData;
  pWithoutFile->u64DataId = 4;
  EXPECT_EQ(0, Data().InsertExecData(pWithoutFile, 0));
  CStorageFaults::Reset();
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((std::vector<size_t>{1}), RowsPerInsert());
  EXPECT_EQ((DataIds{1, 3}), Rows());
  EXPECT_EQ(0, Status(2));
  EXPECT_EQ(1, Status(4));
}

TEST_F(SaveTest, ASecondSaveWritesNothing) {
  Open("dataflowflag = 1\n");
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ(1u, Inserts());
}

TEST_F(SaveTest, WithoutRecordsItBeginsAndEndsABatchOnEveryFile) {
  Open();
  CLogCacheFile* apFile[] = {Data().GetLogCacheFile(kSenderText), Data().GetLogCacheFile(kOtherSender)};
  for (CLogCacheFile* pFile : apFile) {
    // What an earlier batch left; a batch that begins forgets it.
    EXPECT_EQ(0, pFile->BatchAddData(9, 1, 1, "prod", "comb", "left over"));
  }
  EXPECT_EQ(1, Data().SaveCacheToDb());
  for (const CLogCacheFile* pFile : apFile) {
    EXPECT_EQ(0u, pFile->BatchCount());
  }
  EXPECT_FALSE(Exists(CacheFile()));
  EXPECT_FALSE(Exists(CacheFile(kOtherSender)));
  EXPECT_TRUE(CStorageFaults::Statements("").empty());
}

TEST_F(SaveTest, WithoutFilesItIsASuccess) {
  Open();
  EXPECT_EQ(1, Data().SaveCacheToDb());
}

TEST_F(SaveTest, WritesTwelveHundredRecordsInThreeInserts) {
  Open();
  AddPending(1, 1200);
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((std::vector<size_t>{500, 500, 200}), RowsPerInsert());
  EXPECT_EQ(IdRange(1, 1200), Rows());
  EXPECT_EQ(IdRange(1, 1200), Peer().Ids(2));
}

TEST_F(SaveTest, AFailedFlushLeavesAllItsRecordsPendingAndNoOthers) {
  Open();
  AddPending(1001, 2200);
  {
    const CFailingInserts fault("(1700, ");
    EXPECT_EQ(1, Data().SaveCacheToDb());
  }
  EXPECT_EQ(IdRange(1501, 2000), Peer().Ids(1));
  DataIds vecWritten = IdRange(1001, 1500);
  const DataIds vecLast = IdRange(2001, 2200);
  vecWritten.insert(vecWritten.end(), vecLast.begin(), vecLast.end());
  EXPECT_EQ(vecWritten, Peer().Ids(2));
  EXPECT_EQ(vecWritten, Rows());

  const size_t uBefore = Inserts();
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ(uBefore + 1, Inserts());
  EXPECT_EQ(IdRange(1001, 2200), Rows());
  EXPECT_TRUE(Peer().Ids(1).empty());
}

TEST_F(SaveTest, AFailedLastFlushLeavesItsRecordsPending) {
  Open();
  AddPending(1, 510);
  {
    const CFailingInserts fault("(510, ");
    EXPECT_EQ(1, Data().SaveCacheToDb());
  }
  EXPECT_EQ(IdRange(501, 510), Peer().Ids(1));
  EXPECT_EQ(IdRange(1, 500), Rows());
}

TEST_F(SaveTest, AFailedFlushOfOneSenderDoesNotTouchAnother) {
  Open();
  AddPending(1, 3);
  AddPending(4, 6, kOtherSender);
  {
    const CFailingInserts fault("(2, ");
    EXPECT_EQ(1, Data().SaveCacheToDb());
  }
  EXPECT_EQ((DataIds{1, 2, 3}), Peer().Ids(1));
  EXPECT_EQ((DataIds{4, 5, 6}), Rows(kOtherSender));
}

TEST_F(SaveTest, ARecordOfAFailedFlushIsWrittenWhenItIsQueuedAgain) {
  Open();
  AddPending(1, 2);
  {
    const CFailingInserts fault;
    EXPECT_EQ(1, Data().SaveCacheToDb());
  }
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(0, Data().ReAddDataAction(1));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_EQ((DataIds{1}), Peer().Ids(2));
}

TEST_F(SaveTest, WithoutAWayIntoTheDirectoryAllStayPending) {
  Open("dataflowflag = 1\nlogcachepath = ../missing/deep/\n");
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2, kOtherSender));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids(1));
}

TEST_F(SaveTest, ABatchThatASoundFileRefusesTwiceCountsAsWritten) {
  Open();
  EXPECT_EQ(0, Add(1));
  AddPending(2, 3);
  CStorageFaults::SetExecHook(
      [](std::string_view svSql) { return svSql.starts_with("insert") ? SQLITE_CONSTRAINT : SQLITE_OK; });
  EXPECT_EQ(1, Data().SaveCacheToDb());
  CStorageFaults::SetExecHook(nullptr);
  EXPECT_EQ((DataIds{1, 2, 3}), Peer().Ids(2));
  EXPECT_EQ((DataIds{1}), Rows());
}

TEST_F(SaveTest, ADamagedFileIsReplacedAndTheBatchWritten) {
  Open();
  EXPECT_EQ(0, Add(1));
  AddPending(2, 3);
  DamageRows(CacheFile());
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((DataIds{2, 3}), Rows());
  EXPECT_EQ((DataIds{1, 2, 3}), Peer().Ids(2));
}

}  // namespace
