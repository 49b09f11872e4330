// Rows: inserts, deletes and reads.
#include "tests/unit/db/storage_fixture.h"

namespace {

using Ids = std::vector<unsigned long long>;

class DbRecordsTest : public StorageTest {
 protected:
  int Add(unsigned long long u64Id, const CPString& strData = "data", int iDataType = kDataPlain, int iCover = 0) {
    return m_db.AddDbData(m_strFile, u64Id, 1, 2, iDataType, "prod", "combo", strData, iCover);
  }
  std::list<_CacheDbData> Read(unsigned int dwLimit = 1000) {
    std::list<_CacheDbData> rows;
    EXPECT_EQ(0, m_db.GetAllDbData(m_strFile, dwLimit, rows));
    return rows;
  }
  Ids StoredIds() const { return IdsOf(m_strFile.c_str()); }

  CLogCacheDb m_db;
  const CPString m_strFile = Path("a.db").c_str();
};

_CacheDbData Row(unsigned long long u64Id, const CPString& strData, int iDataType = kDataPlain) {
  return {u64Id, 11, -3, iDataType, "pro'd", "com'bo", strData};
}

std::string EveryByteButZero() {
  std::string strBytes;
  for (int i = 1; i < 256; ++i) {
    strBytes += static_cast<char>(i);
  }
  return strBytes;
}

TEST_F(DbRecordsTest, EveryFieldComesBackFromASingleInsert) {
  ASSERT_EQ(0, m_db.AddDbData(m_strFile, 0x7fffffffffffffffULL, -1, 10101, kDataPlain, "it's", "'", "'a''b'", 0));
  const auto rows = Read();
  ASSERT_EQ(1U, rows.size());
  EXPECT_EQ(0x7fffffffffffffffULL, rows.front().u64DataId);
  EXPECT_EQ(-1, rows.front().iPriv);
  EXPECT_EQ(10101, rows.front().iMsgType);
  EXPECT_EQ(0, rows.front().iDataType);
  EXPECT_EQ("it's", rows.front().strProduct.View());
  EXPECT_EQ("'", rows.front().strCombo.View());
  EXPECT_EQ("'a''b'", rows.front().strData.View());
}

TEST_F(DbRecordsTest, EveryFieldComesBackFromABatch) {
  ASSERT_EQ(0, m_db.AddDbData(m_strFile, {Row(1, "o'ne"), Row(2, "tw'o", kDataBase64)}));
  const auto rows = Read();
  ASSERT_EQ(2U, rows.size());
  EXPECT_EQ("o'ne", rows.front().strData.View());
  EXPECT_EQ("tw'o", rows.back().strData.View());
  EXPECT_EQ(1, rows.back().iDataType);
  EXPECT_EQ(11, rows.back().iPriv);
  EXPECT_EQ(-3, rows.back().iMsgType);
  EXPECT_EQ("pro'd", rows.back().strProduct.View());
  EXPECT_EQ("com'bo", rows.back().strCombo.View());
}

TEST_F(DbRecordsTest, EveryByteButZeroComesBackInBothForms) {
  const CPString strBytes(EveryByteButZero());
  const CPString strUtf8("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80 %s %n %d \\ \"");
  ASSERT_EQ(0, Add(1, strBytes, kDataPlain));
  ASSERT_EQ(0, Add(2, strBytes, kDataBase64));
  ASSERT_EQ(0, Add(3, strUtf8, kDataPlain));
  ASSERT_EQ(0, m_db.AddDbData(m_strFile, {Row(4, strBytes), Row(5, strBytes, kDataBase64), Row(6, strUtf8)}));
  const auto rows = Read();
  ASSERT_EQ(6U, rows.size());
  for (const _CacheDbData& row : rows) {
    EXPECT_EQ(row.u64DataId % 3 == 0 ? strUtf8.View() : strBytes.View(), row.strData.View()) << row.u64DataId;
  }
}

TEST_F(DbRecordsTest, DataTypeOneIsStoredAsBase64) {
  ASSERT_EQ(0, Add(1, "foo'bar", kDataBase64));
  EXPECT_EQ((std::vector<std::string>{"1|Zm9vJ2Jhcg==|NULL|NULL"}),
            CShell(m_strFile.c_str()).Run("select datatype, data, reserved1, reserved2 from logcache"));
}

TEST_F(DbRecordsTest, AnEmptyPayloadComesBackEmptyInBothForms) {
  ASSERT_EQ(0, Add(1, "", kDataPlain));
  ASSERT_EQ(0, Add(2, "", kDataBase64));
  const auto rows = Read();
  ASSERT_EQ(2U, rows.size());
  EXPECT_TRUE(rows.front().strData.IsEmpty());
  EXPECT_TRUE(rows.back().strData.IsEmpty());
}

TEST_F(DbRecordsTest, AZeroByteCannotBeStoredAsText) {
  const CPString strData("ab\0cd", 5);
  EXPECT_EQ(kStatusInsertFailed, Add(1, strData, kDataPlain));
  EXPECT_EQ(kStatusInsertFailed, m_db.AddDbData(m_strFile, {Row(2, "x"), Row(3, strData)}));
  EXPECT_EQ(Ids{}, StoredIds());
}

TEST_F(DbRecordsTest, ADecodedPayloadEndsAtItsFirstZeroByte) {
  ASSERT_EQ(0, Add(1, CPString("ab\0cd", 5), kDataBase64));
  EXPECT_EQ((std::vector<std::string>{"YWIAY2Q="}), CShell(m_strFile.c_str()).Run("select data from logcache"));
  EXPECT_EQ("ab", Read().front().strData.View());
}

TEST_F(DbRecordsTest, ACoveringInsertTakesTheOldestRowsPlace) {
  for (const unsigned long long u64Id : {7, 5, 9}) {
    ASSERT_EQ(0, Add(u64Id));
  }
  EXPECT_EQ(0, Add(12, "data", kDataPlain, 1));
  EXPECT_EQ((Ids{7, 9, 12}), StoredIds());
}

TEST_F(DbRecordsTest, ACoveringInsertIntoAnEmptyTableInserts) {
  EXPECT_EQ(0, Add(3, "data", kDataPlain, -1));
  EXPECT_EQ(Ids{3}, StoredIds());
}

TEST_F(DbRecordsTest, AnIdThatIsThereAlreadyIsRefusedAndLogged) {
  ASSERT_EQ(0, Add(10));
  ASSERT_EQ(0, Add(11));
  EXPECT_EQ(kStatusInsertFailed, m_db.AddDbData(m_strFile, 11, 1, 2, kDataPlain, "p'r", "c'o", "d", 0));
  EXPECT_EQ((Ids{10, 11}), StoredIds());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, kLogWarning,
                              "*qmlogcache CLogCacheDb::AddDbData sqlite3_exec_sql error u64DataId[b] iPriv[1] "
                              "iMsgType[2] iDataType[0] strProduct[p''r] strCombo[c''o] iRet[a0010023] strFile[" +
                                  Path("a.db") + "]"}}));
}

TEST_F(DbRecordsTest, ACoveringInsertThatFailsHasRemovedTheOldestRow) {
  ASSERT_EQ(0, Add(10));
  ASSERT_EQ(0, Add(11));
  EXPECT_EQ(kStatusInsertFailed, Add(11, "data", kDataPlain, 1));
  EXPECT_EQ(Ids{11}, StoredIds());
}

TEST_F(DbRecordsTest, ABatchWithOneIdThatIsThereStoresNothingAndLogsItsStatement) {
  ASSERT_EQ(0, Add(2));
  EXPECT_EQ(kStatusInsertFailed, m_db.AddDbData(m_strFile, {Row(1, "x'y"), Row(2, "z")}));
  EXPECT_EQ(Ids{2}, StoredIds());
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogWarning,
        "*qmlogcache CLogCacheDb::AddDbData sqlite3_exec_sql error  iRet[a0010023] strFile[" + Path("a.db") +
            "] strSql[insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values (1, 11, -3, "
            "'pro''d', 'com''bo', 0, 'x''y'), (2, 11, -3, 'pro''d', 'com''bo', 0, 'z');]"}}));
}

TEST_F(DbRecordsTest, AnEmptyBatchRunsNoStatement) {
  EXPECT_EQ(0, m_db.AddDbData(m_strFile, std::list<_CacheDbData>{}));
  EXPECT_TRUE(CStorageFaults::Statements("insert").empty());
  EXPECT_EQ(kStatusNoConnection, m_db.AddDbData(Path("missing/a.db").c_str(), std::list<_CacheDbData>{}));
}

TEST_F(DbRecordsTest, APayloadThatCannotBeEncodedIsRefused) {
  CStorageFaults::SetEncodeHook([](std::string_view) { return true; });
  EXPECT_EQ(kStatusEncodeFailed, Add(1, "data", kDataBase64));
  EXPECT_EQ(Ids{}, StoredIds());
}

TEST_F(DbRecordsTest, ABatchWhoseFirstRowCannotBeEncodedIsLost) {
  CStorageFaults::SetEncodeHook([](std::string_view svData) { return svData == "bad"; });
  EXPECT_EQ(kStatusInsertFailed, m_db.AddDbData(m_strFile, {Row(1, "bad", kDataBase64), Row(2, "good", kDataBase64)}));
  EXPECT_EQ((std::vector<std::string>{"insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) "
                                      "values , (2, 11, -3, 'pro''d', 'com''bo', 1, 'Z29vZA==');"}),
            CStorageFaults::Statements("insert"));
  EXPECT_EQ(Ids{}, StoredIds());
}

TEST_F(DbRecordsTest, ABatchOfWhichNoRowCanBeEncodedFails) {
  CStorageFaults::SetEncodeHook([](std::string_view) { return true; });
  EXPECT_EQ(kStatusInsertFailed, m_db.AddDbData(m_strFile, {Row(1, "a", kDataBase64), Row(2, "b", kDataBase64)}));
  EXPECT_EQ((std::vector<std::string>{
                "insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values ;"}),
            CStorageFaults::Statements("insert"));
}

TEST_F(DbRecordsTest, DeletingRemovesOneRowAndAMissingRowIsNoError) {
  ASSERT_EQ(0, Add(1));
  ASSERT_EQ(0, Add(2));
  EXPECT_EQ(0, m_db.DeleteDbData(1, m_strFile));
  EXPECT_EQ(0, m_db.DeleteDbData(1, m_strFile));
  EXPECT_EQ(Ids{2}, StoredIds());
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(DbRecordsTest, ADeleteThatFailsIsLogged) {
  { CShell(m_strFile.c_str()).Run("create table other (x)"); }
  EXPECT_EQ(kStatusDeleteFailed, m_db.DeleteDbData(0xabc, m_strFile));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, kLogWarning,
                              "*qmlogcache CLogCacheDb::DeleteDbData sqlite3_exec_sql error u64DataId[abc] "
                              "iRet[a0010025] strFile[" +
                                  Path("a.db") + "]"}}));
}

TEST_F(DbRecordsTest, AReadTakesAtMostItsLimitInIdOrder) {
  for (unsigned long long u64Id = 10; u64Id >= 1; --u64Id) {
    ASSERT_EQ(0, Add(u64Id));
  }
  std::list<_CacheDbData> rows = Read(3);
  ASSERT_EQ(3U, rows.size());
  unsigned long long u64Expected = 1;
  for (const _CacheDbData& row : rows) {
    EXPECT_EQ(u64Expected++, row.u64DataId);
  }
  EXPECT_EQ(0, m_db.GetAllDbData(m_strFile, 2, rows));
  EXPECT_EQ(5U, rows.size());
}

TEST_F(DbRecordsTest, AReadWithALimitOfZeroIsRefused) {
  std::list<_CacheDbData> rows;
  EXPECT_EQ(kStatusNoRowsWanted, m_db.GetAllDbData(m_strFile, 0, rows));
  EXPECT_TRUE(rows.empty());
  EXPECT_TRUE(CStorageFaults::Statements("select * from logcache").empty());
}

TEST_F(DbRecordsTest, ARowThatCannotBeDecodedStopsTheReadAndIsLogged) {
  ASSERT_EQ(0, Add(1));
  ASSERT_EQ(0, Add(2, "data", kDataBase64));
  ASSERT_EQ(0, Add(3));
  { CShell(m_strFile.c_str()).Run("update logcache set data = '!!' where dataid = 2"); }
  std::list<_CacheDbData> rows;
  EXPECT_EQ(kStatusSelectFailed, m_db.GetAllDbData(m_strFile, 7, rows));
  ASSERT_EQ(1U, rows.size());
  EXPECT_EQ(1U, rows.front().u64DataId);
  EXPECT_TRUE(LoggedExactly({{kMainChannel, kLogWarning,
                              "*qmlogcache CLogCacheDb::GetAllDbData sqlite3_exec_sql2 error iRet[a0010027] "
                              "dwCountLimit[7] strFile[" +
                                  Path("a.db") + "]"}}));
}

TEST_F(DbRecordsTest, EveryOperationWithoutAConnectionSaysSo) {
  const CPString strFile(Path("missing/a.db").c_str());
  std::list<_CacheDbData> rows;
  EXPECT_EQ(kStatusNoConnection, m_db.AddDbData(strFile, 1, 0, 0, 0, "", "", "", 0));
  EXPECT_EQ(kStatusNoConnection, m_db.AddDbData(strFile, {Row(1, "x")}));
  EXPECT_EQ(kStatusNoConnection, m_db.DeleteDbData(1, strFile));
  EXPECT_EQ(kStatusNoConnection, m_db.GetAllDbData(strFile, 0, rows));
}

TEST_F(DbRecordsTest, TheRowCallbackMatchesNamesExactlyAndIgnoresTheRest) {
  std::list<_CacheDbData> rows;
  std::vector<std::string> vecNames = {"dataid", "DATA", "data", "priv", "msgtype", "reserved1", "combo", "product"};
  std::vector<std::string> vecValues = {"0x10", "upper", "text", "12abc", "none", "5", "", "prod"};
  std::vector<char*> vecNamePointers;
  std::vector<char*> vecValuePointers;
  for (size_t i = 0; i < vecNames.size(); ++i) {
    vecNamePointers.push_back(vecNames[i].data());
    vecValuePointers.push_back(vecValues[i].data());
  }
  vecValuePointers[6] = nullptr;
  vecNamePointers[7] = nullptr;
  EXPECT_EQ(0, CLogCacheDb::QueryCallback(&rows, static_cast<int>(vecNames.size()), vecValuePointers.data(),
                                          vecNamePointers.data()));
  ASSERT_EQ(1U, rows.size());
  EXPECT_EQ(16U, rows.front().u64DataId);
  EXPECT_EQ(12, rows.front().iPriv);
  EXPECT_EQ(0, rows.front().iMsgType);
  EXPECT_EQ("text", rows.front().strData.View());
  EXPECT_TRUE(rows.front().strCombo.IsEmpty());
  EXPECT_TRUE(rows.front().strProduct.IsEmpty());
}

TEST_F(DbRecordsTest, TheRowCallbackRefusesMissingArguments) {
  std::list<_CacheDbData> rows;
  char* pNone = nullptr;
  EXPECT_EQ(-1, CLogCacheDb::QueryCallback(nullptr, 0, &pNone, &pNone));
  EXPECT_EQ(-1, CLogCacheDb::QueryCallback(&rows, 0, nullptr, &pNone));
  EXPECT_EQ(-1, CLogCacheDb::QueryCallback(&rows, 0, &pNone, nullptr));
  EXPECT_TRUE(rows.empty());
}

}  // namespace
