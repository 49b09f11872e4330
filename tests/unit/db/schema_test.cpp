// Opening, creating and checking cache files.
#include <thread>

#include "db/sqlite_wrapper.h"
#include "tests/unit/db/storage_fixture.h"

namespace {

constexpr char kCreateTable[] =
    "CREATE TABLE [logcache] ([dataid] INTEGER NOT NULL PRIMARY KEY, [priv] INTEGER NOT NULL, [msgtype] INTEGER NOT "
    "NULL, [product] VARCHAR(128) NOT NULL, [combo] VARCHAR(128) NOT NULL, [datatype] INTEGER NOT NULL, [data] "
    "longtext NOT NULL, [reserved1] INTEGER NULL, [reserved2] VARCHAR(256) NULL);";

class DbSchemaTest : public StorageTest {
 protected:
  // Opens the file and closes it again. Whether it could be opened.
  bool Opens(const std::string& strFile) {
    sqlite3* pDb = m_db.GetDbFileHandle(strFile.c_str());
    const bool bOpened = pDb != nullptr;
    EXPECT_EQ(bOpened ? 0 : -1, m_db.CloseDbFileHandle(&pDb));
    EXPECT_EQ(nullptr, pDb);
    return bOpened;
  }
  int Insert(const std::string& strFile, unsigned long long u64Id = 1) {
    return m_db.AddDbData(strFile.c_str(), u64Id, 0, 0, kDataPlain, "p", "c", "d", 0);
  }

  CLogCacheDb m_db;
  const std::string m_strFile = Path("a.db");
};

TEST_F(DbSchemaTest, CreatesAMissingFileWithItsTableAndOnlyOnce) {
  EXPECT_TRUE(Opens(m_strFile));
  EXPECT_TRUE(Opens(m_strFile));
  EXPECT_EQ(std::vector<std::string>{kCreateTable}, CStorageFaults::Statements("CREATE"));
  CShell shell(m_strFile);
  std::string strWithoutSemicolon = kCreateTable;
  strWithoutSemicolon.pop_back();
  EXPECT_EQ(std::vector<std::string>{"table|logcache|" + strWithoutSemicolon},
            shell.Run("select type, name, sql from sqlite_master"));
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(DbSchemaTest, OpensAFileWithoutTheTableAndInsertsIntoItFail) {
  { CShell(m_strFile).Run("create table other (x)"); }
  EXPECT_TRUE(Opens(m_strFile));
  EXPECT_EQ(0, m_db.CheckDbFile(m_strFile.c_str()));
  EXPECT_EQ(kStatusInsertFailed, Insert(m_strFile));
}

TEST_F(DbSchemaTest, ClosingWhatIsNotOpenIsRefused) {
  sqlite3* pNone = nullptr;
  EXPECT_EQ(-1, m_db.CloseDbFileHandle(nullptr));
  EXPECT_EQ(-1, m_db.CloseDbFileHandle(&pNone));
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(DbSchemaTest, ACloseThatThrowsIsLoggedAndLeavesTheHandle) {
  sqlite3* pDb = m_db.GetDbFileHandle(m_strFile.c_str());
  sqlite3* const pBefore = pDb;
  CStorageFaults::ThrowOnClose(true);
  EXPECT_EQ(-1, m_db.CloseDbFileHandle(&pDb));
  EXPECT_EQ(pBefore, pDb);
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogWarning, "*qmlogcache CLogCacheDb::CloseDbFileHandle sqlite3_closedb catch error"}}));
}

TEST_F(DbSchemaTest, ACloseThatThrowsAndCannotBeLoggedHasACodeOfItsOwn) {
  sqlite3* pDb = m_db.GetDbFileHandle(m_strFile.c_str());
  CStorageFaults::ThrowOnClose(true);
  CLogCapture::SetHook([](const LogLine&) { throw std::runtime_error("log"); });
  EXPECT_EQ(kStatusLogThrew, m_db.CloseDbFileHandle(&pDb));
}

TEST_F(DbSchemaTest, AFileThatIsNoDatabaseFailsTheCheck) {
  m_directory.Write("a.db", NoDatabase());
  EXPECT_EQ(-1, m_db.CheckDbFile(m_strFile.c_str()));
  EXPECT_EQ(DbCheck::Damaged, m_db.ExamineDbFile(m_strFile.c_str()));
  EXPECT_EQ(NoDatabase(), BytesOf(m_strFile));
}

TEST_F(DbSchemaTest, ADamagedPageFailsTheCheck) {
  ASSERT_EQ(0, Insert(m_strFile));
  DamageRows(m_strFile);
  EXPECT_EQ(-1, m_db.CheckDbFile(m_strFile.c_str()));
  EXPECT_EQ(DbCheck::Damaged, m_db.ExamineDbFile(m_strFile.c_str()));
}

TEST_F(DbSchemaTest, CheckingAMissingFileMakesASoundEmptyOne) {
  EXPECT_EQ(0, m_db.CheckDbFile(m_strFile.c_str()));
  EXPECT_TRUE(IdsOf(m_strFile).empty());
}

TEST_F(DbSchemaTest, AnOpenThatFailsIsLoggedWithItsResult) {
  m_directory.Write("a.db", NoDatabase());
  EXPECT_FALSE(Opens(m_strFile));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogWarning,
        "*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_opendb error iRet[1a] strFile[" + m_strFile + "]"}}));
}

TEST_F(DbSchemaTest, ACreationThatFailsIsLoggedWithItsResult) {
  const std::string strFile = Path("missing/a.db");
  EXPECT_FALSE(Opens(strFile));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogWarning,
        "*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_createdb error iRet[e] pHandle[(nil)] strFile[" + strFile +
            "]"}}));
}

TEST_F(DbSchemaTest, ATableThatCannotBeMadeIsLoggedAndMadeByTheNextCall) {
  CStorageFaults::SetExecHook([](std::string_view svSql) { return svSql.starts_with("CREATE") ? SQLITE_FULL : 0; });
  EXPECT_FALSE(Opens(m_strFile));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogWarning,
        "*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_exec_sql error iRet[d] strFile[" + m_strFile + "]"}}));
  EXPECT_EQ("", BytesOf(m_strFile));
  CStorageFaults::SetExecHook(nullptr);
  EXPECT_EQ(0, Insert(m_strFile));
  EXPECT_EQ(std::vector<unsigned long long>{1}, IdsOf(m_strFile));
}

TEST_F(DbSchemaTest, AFileOfZeroBytesBecomesADatabaseWithItsTable) {
  m_directory.Write("a.db", "");
  EXPECT_EQ(0, Insert(m_strFile));
  EXPECT_EQ(std::vector<unsigned long long>{1}, IdsOf(m_strFile));
}

TEST_F(DbSchemaTest, FilesAreTheirOwnersAlone) {
  const mode_t oldMask = umask(0);
  EXPECT_EQ(0, Insert(m_strFile, 1));
  EXPECT_EQ(0, Insert(m_strFile, 2));
  umask(oldMask);
  for (const auto& entry : std::filesystem::directory_iterator(m_directory.Path())) {
    EXPECT_EQ(0600U, ModeOf(entry.path().string())) << entry.path();
  }
}

TEST_F(DbSchemaTest, ASymbolicLinkIsRefusedWhetherItsTargetExistsOrNot) {
  const std::string strTarget = Path("target");
  std::filesystem::create_symlink(strTarget, m_strFile);
  EXPECT_EQ(kStatusNoConnection, Insert(m_strFile));
  EXPECT_FALSE(Exists(strTarget));
  ASSERT_TRUE(Opens(strTarget));
  EXPECT_EQ(kStatusNoConnection, Insert(m_strFile));
  EXPECT_EQ(DbCheck::Unknown, m_db.ExamineDbFile(m_strFile.c_str()));
  EXPECT_TRUE(IdsOf(strTarget).empty());
}

TEST_F(DbSchemaTest, ADirectoryReachedThroughALinkIsTaken) {
  std::filesystem::create_directory(Path("real"));
  std::filesystem::create_symlink(Path("real"), Path("link"));
  EXPECT_EQ(0, Insert(Path("link/a.db")));
  EXPECT_EQ(std::vector<unsigned long long>{1}, IdsOf(Path("real/a.db")));
}

TEST_F(DbSchemaTest, AFifoIsRefusedWithoutBlocking) {
  ASSERT_EQ(0, mkfifo(m_strFile.c_str(), 0600));
  EXPECT_EQ(kStatusNoConnection, Insert(m_strFile));
  EXPECT_EQ(DbCheck::Unknown, m_db.ExamineDbFile(m_strFile.c_str()));
  EXPECT_TRUE(std::filesystem::is_fifo(m_strFile));
}

TEST_F(DbSchemaTest, ADirectoryIsRefused) {
  std::filesystem::create_directory(m_strFile);
  EXPECT_EQ(kStatusNoConnection, Insert(m_strFile));
  EXPECT_EQ(DbCheck::Unknown, m_db.ExamineDbFile(m_strFile.c_str()));
  EXPECT_TRUE(std::filesystem::is_directory(m_strFile));
}

TEST_F(DbSchemaTest, SideFilesOfAnEarlierFileAreGoneBesideANewOne) {
  for (const char* pszSuffix : {"-wal", "-journal", "-shm"}) {
    m_directory.Write(std::string("a.db") + pszSuffix, NoDatabase());
  }
  EXPECT_TRUE(Opens(m_strFile));
  for (const char* pszSuffix : {"-wal", "-journal", "-shm"}) {
    EXPECT_NE(NoDatabase(), BytesOf(m_strFile + pszSuffix)) << pszSuffix;
  }
  EXPECT_EQ(0, Insert(m_strFile));
  EXPECT_EQ(std::vector<unsigned long long>{1}, IdsOf(m_strFile));
}

TEST_F(DbSchemaTest, TheLogOfAReplacedFileDoesNotComeBack) {
  for (unsigned long long u64Id = 1; u64Id <= 5; ++u64Id) {
    ASSERT_EQ(0, Insert(m_strFile, u64Id));
  }
  ASSERT_NE("", BytesOf(m_strFile + "-wal"));
  std::filesystem::remove(m_strFile);
  EXPECT_EQ(0, Insert(m_strFile, 9));
  EXPECT_EQ(std::vector<unsigned long long>{9}, IdsOf(m_strFile));
}

TEST_F(DbSchemaTest, TheLogDoesNotGrowWithoutEnd) {
  for (unsigned long long u64Id = 1; u64Id <= 300; ++u64Id) {
    ASSERT_EQ(0, Insert(m_strFile, u64Id));
  }
  EXPECT_LT(BytesOf(m_strFile + "-wal").size(), 2U * kCheckpointFrames * 4120);
  EXPECT_EQ(300U, IdsOf(m_strFile).size());
}

TEST_F(DbSchemaTest, AViewInPlaceOfTheTableIsNotRead) {
  {
    CShell shell(m_strFile);
    shell.Run("create table t (dataid, priv, msgtype, product, combo, datatype, data)");
    shell.Run("insert into t values (1, 0, 0, 'p', 'c', 0, 'd')");
    shell.Run("create view logcache as select * from t");
  }
  std::list<_CacheDbData> rows;
  EXPECT_EQ(kStatusSelectFailed, m_db.GetAllDbData(m_strFile.c_str(), 10, rows));
  EXPECT_TRUE(rows.empty());
}

TEST_F(DbSchemaTest, ATriggerInTheFileDoesNotAct) {
  ASSERT_TRUE(Opens(m_strFile));
  { CShell(m_strFile).Run("create trigger t after insert on logcache begin delete from logcache; end"); }
  EXPECT_EQ(0, Insert(m_strFile));
  EXPECT_EQ(std::vector<unsigned long long>{1}, IdsOf(m_strFile));
}

TEST_F(DbSchemaTest, WithoutDescriptorsNothingIsTakenForDamaged) {
  ASSERT_EQ(0, Insert(m_strFile));
  {
    const CNoDescriptors none;
    EXPECT_EQ(DbCheck::Unknown, m_db.ExamineDbFile(m_strFile.c_str()));
    EXPECT_EQ(-1, m_db.CheckDbFile(m_strFile.c_str()));
    EXPECT_EQ(kStatusNoConnection, Insert(m_strFile, 2));
  }
  EXPECT_EQ(DbCheck::Sound, m_db.ExamineDbFile(m_strFile.c_str()));
}

}  // namespace
