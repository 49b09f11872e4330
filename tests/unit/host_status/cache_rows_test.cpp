#include "host/status/cache_rows.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include "status_test_support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class CacheRowsTest : public ::testing::Test {
 protected:
  void TearDown() override { sqlite3_close(m_pDatabase); }

  // A file as the component makes it, with a connection that stays open.
  void Open(const std::string& strFile) {
    ASSERT_EQ(sqlite3_open(strFile.c_str(), &m_pDatabase), SQLITE_OK);
    Run("PRAGMA journal_mode=WAL");
    Run("PRAGMA wal_autocheckpoint=0");
    Run("CREATE TABLE logcache (dataid INTEGER NOT NULL PRIMARY KEY, data TEXT)");
  }
  void Run(const std::string& strSql) {
    ASSERT_EQ(sqlite3_exec(m_pDatabase, strSql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(m_pDatabase);
  }
  void Insert(int iRows) {
    Run("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT " + std::to_string(iRows) +
        ") INSERT INTO logcache (data) SELECT 'text' FROM n");
  }
  CacheContents Filled(CCacheRows& rows, CCacheRows::Clock::time_point now, milliseconds budget = seconds(60)) const {
    CacheContents contents = ScanCacheDirectory(m_directory.Path());
    rows.Fill(m_directory.Path(), contents, now, budget);
    return contents;
  }

  CStatusDirectory m_directory;
  const std::string m_strFile = m_directory.Path("S.db");
  sqlite3* m_pDatabase = nullptr;
};

TEST_F(CacheRowsTest, CountsTheRowsThatAreOnlyInTheLog) {
  Open(m_strFile);
  EXPECT_EQ(CountCacheRows(m_strFile), 0U);
  Insert(17);
  EXPECT_EQ(CountCacheRows(m_strFile), 17U);
}

TEST_F(CacheRowsTest, IsNotInTheWayOfAWriterNorWaitsForOne) {
  Open(m_strFile);
  Insert(3);
  Run("BEGIN IMMEDIATE");
  Insert(2);
  EXPECT_EQ(CountCacheRows(m_strFile), 3U);
  Run("COMMIT");
  EXPECT_EQ(CountCacheRows(m_strFile), 5U);
}

TEST_F(CacheRowsTest, ALockedFileIsLeftUncounted) {
  ASSERT_EQ(sqlite3_open(m_strFile.c_str(), &m_pDatabase), SQLITE_OK);
  Run("CREATE TABLE logcache (dataid INTEGER NOT NULL PRIMARY KEY, data TEXT)");  // with a rollback journal
  Run("BEGIN EXCLUSIVE");
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
  Run("COMMIT");
  EXPECT_EQ(CountCacheRows(m_strFile), 0U);
}

TEST_F(CacheRowsTest, LeavesTheLogAsItIs) {
  Open(m_strFile);
  Insert(100);
  const auto uBefore = std::filesystem::file_size(m_strFile + "-wal");
  ASSERT_GT(uBefore, 0U);
  ASSERT_EQ(sqlite3_db_config(m_pDatabase, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr), SQLITE_OK);
  sqlite3_close(std::exchange(m_pDatabase, nullptr));
  // Now the counting connection is the last one to close the file.
  EXPECT_EQ(CountCacheRows(m_strFile), 100U);
  EXPECT_EQ(std::filesystem::file_size(m_strFile + "-wal"), uBefore);
}

TEST_F(CacheRowsTest, WhatIsNoCacheFileHasNoRows) {
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(m_strFile));
  m_directory.Write("S.db", 0);
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
  m_directory.Write("S.db", 5000);
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
  const CStatusDirectory other;
  Open(other.Path("T.db"));
  std::filesystem::remove(m_strFile);
  std::filesystem::create_symlink(other.Path("T.db"), m_strFile);
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
}

TEST_F(CacheRowsTest, CountsInADirectoryThatIsReachedByALink) {
  Open(m_strFile);
  Insert(4);
  const CStatusDirectory other;
  std::filesystem::create_directory_symlink(m_directory.Path(), other.Path("link"));
  CacheContents contents = ScanCacheDirectory(other.Path("link/"));
  CCacheRows rows;
  rows.Fill(other.Path("link/"), contents, At(seconds(0)), seconds(60));
  EXPECT_EQ(contents.vecFiles.at(0).optRows, 4U);
}

TEST_F(CacheRowsTest, APipeBesideACacheFileIsNotWaitedFor) {
  Open(m_strFile);
  Insert(1);
  Run("PRAGMA journal_mode=DELETE");
  for (const char* pszSide : {"-journal", "-wal", "-shm"}) {
    EXPECT_EQ(CountCacheRows(m_strFile), 1U);
    const std::string strPipe = m_strFile + pszSide;
    ASSERT_EQ(mkfifo(strPipe.c_str(), 0600), 0);
    EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt) << pszSide;
    std::filesystem::remove(strPipe);
  }
}

TEST_F(CacheRowsTest, CountsAFileWhoseNameIsNotText) {
  Open(m_directory.Path("a\xff.db"));
  Insert(6);
  CCacheRows rows;
  EXPECT_EQ(Filled(rows, At(seconds(0))).vecFiles.at(0).optRows, 6U);
}

TEST_F(CacheRowsTest, AHostileViewIsNotRun) {
  Open(m_strFile);
  Run("DROP TABLE logcache");
  Run("CREATE VIEW logcache AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT i FROM n");
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
}

TEST_F(CacheRowsTest, ALargeFileIsNotCounted) {
  Open(m_strFile);
  Run("CREATE TABLE filler (data BLOB)");
  Run("INSERT INTO filler VALUES (zeroblob(17000000))");
  Run("PRAGMA wal_checkpoint(TRUNCATE)");
  ASSERT_GT(std::filesystem::file_size(m_strFile), kLargestCounted);
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
}

TEST_F(CacheRowsTest, ALargeLogIsNotRead) {
  Open(m_strFile);
  Insert(1);
  ASSERT_EQ(HasRowsBefore(m_strFile, INT64_MAX), true);
  std::filesystem::resize_file(m_strFile + "-wal", kLargestCounted + 1);
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
  EXPECT_EQ(HasRowsBefore(m_strFile, INT64_MAX), std::nullopt);
}

TEST_F(CacheRowsTest, ACountThatTakesTooLongIsGivenUp) {
  Open(m_strFile);
  Run("DROP TABLE logcache");
  // All data ids together are half a second's work.
  Run("CREATE TABLE logcache (data TEXT, dataid INTEGER AS (length(hex(zeroblob(10000 + length(data))))))");
  Insert(30000);
  EXPECT_EQ(CountCacheRows(m_strFile), std::nullopt);
  EXPECT_EQ(HasRowsBefore(m_strFile, 1), std::nullopt);
}

TEST_F(CacheRowsTest, TellsWhetherRowsStandBeforeADataId) {
  EXPECT_EQ(HasRowsBefore(m_strFile, UINT64_MAX), false);
  Open(m_strFile);
  EXPECT_EQ(HasRowsBefore(m_strFile, UINT64_MAX), false);
  Run("INSERT INTO logcache VALUES (8, 'text')");
  EXPECT_EQ(HasRowsBefore(m_strFile, 8), false);
  EXPECT_EQ(HasRowsBefore(m_strFile, 9), true);
  EXPECT_EQ(HasRowsBefore(m_strFile, UINT64_MAX), true);
  EXPECT_EQ(HasRowsBefore(m_directory.Path(), 9), std::nullopt);
}

TEST_F(CacheRowsTest, CountsAgainOnlyAfterAChangeAndAPause) {
  Open(m_strFile);
  Insert(1);
  CCacheRows rows;
  EXPECT_EQ(Filled(rows, At(seconds(0))).vecFiles.at(0).optRows, 1U);
  Insert(1);
  EXPECT_EQ(Filled(rows, At(seconds(kCountPauseSeconds - 1))).vecFiles.at(0).optRows, 1U);
  EXPECT_EQ(Filled(rows, At(seconds(kCountPauseSeconds))).vecFiles.at(0).optRows, 2U);
}

TEST_F(CacheRowsTest, CountsNothingWithoutABudgetAndCatchesUp) {
  Open(m_strFile);
  CCacheRows rows;
  EXPECT_EQ(Filled(rows, At(seconds(0)), milliseconds(0)).vecFiles.at(0).optRows, std::nullopt);
  EXPECT_EQ(Filled(rows, At(seconds(2))).vecFiles.at(0).optRows, 0U);
}

}  // namespace
