#include "host/status/earlier_rows.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "host/status/cache_directory.h"
#include "host/status/cache_rows.h"
#include "status_test_support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint64_t kFirstOfRun = uint64_t{0x60000000} << 32;
constexpr seconds kAllTheTime{60};

class EarlierRowsTest : public ::testing::Test {
 protected:
  void Run(const std::string& strName, const std::string& strSql) const {
    sqlite3* pDatabase = nullptr;
    ASSERT_EQ(sqlite3_open(m_directory.Path(strName).c_str(), &pDatabase), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(pDatabase, strSql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(pDatabase);
    sqlite3_close(pDatabase);
  }
  void Make(const std::string& strName, const std::string& strMore = "") const {
    Run(strName, "CREATE TABLE logcache (dataid INTEGER NOT NULL PRIMARY KEY, data TEXT);" + strMore);
  }
  static std::string Insert(uint64_t u64DataId) {
    return "INSERT INTO logcache VALUES (" + std::to_string(u64DataId) + ", 'text');";
  }
  void Count(milliseconds budget = kAllTheTime) { m_rows.Count(m_directory.Path(), budget); }
  void Look(milliseconds budget = kAllTheTime) { m_rows.Look(m_directory.Path(), kFirstOfRun, budget); }

  const std::string m_strLarge = Insert(3) + Insert(4) + "CREATE TABLE filler AS SELECT zeroblob(17000000);";
  const CStatusDirectory m_directory;
  CEarlierRows m_rows;
};

TEST_F(EarlierRowsTest, NoDirectoryHoldsNone) {
  m_rows.Count(m_directory.Path("none/"), kAllTheTime);
  EXPECT_EQ(m_rows.AtStart(), 0U);
}

TEST_F(EarlierRowsTest, CountsTheFilesThatTheStatusHasNoPlaceForToo) {
  for (size_t i = 0; i < kMostCacheFiles; ++i) {
    m_directory.Write("S" + std::to_string(i) + ".db", 1);  // just begun, as a kill leaves it
  }
  Make("A.db");
  Make("Z.db", Insert(1) + Insert(2));
  Count();
  EXPECT_EQ(m_rows.AtStart(), 2U);
}

TEST_F(EarlierRowsTest, WhatCouldNotBeCountedIsUnknownUntilItIsGone) {
  Make("L.db", m_strLarge);
  Make("S.db", Insert(7));
  Count();
  Look();
  EXPECT_EQ(m_rows.AtStart(), std::nullopt);
  // This run's own records, and files, are no matter; nor is the size that a file keeps.
  Run("L.db", Insert(kFirstOfRun) + "DELETE FROM logcache WHERE dataid < 5");
  Make("N.db", Insert(kFirstOfRun + 1));
  Look();
  EXPECT_EQ(m_rows.AtStart(), std::nullopt);
  std::filesystem::remove(m_directory.Path("S.db"));
  Look();
  EXPECT_EQ(m_rows.AtStart(), 0U);
}

TEST_F(EarlierRowsTest, ALargeFileWithoutRowsIsCounted) {
  Make("L.db", m_strLarge + "DELETE FROM logcache;");
  ASSERT_EQ(CountCacheRows(m_directory.Path("L.db")), std::nullopt);
  Count();
  EXPECT_EQ(m_rows.AtStart(), 0U);
}

TEST_F(EarlierRowsTest, AFileThatCannotBeReadMayHoldSome) {
  m_directory.Write("D.db", 5000);
  Count();
  Look();
  EXPECT_EQ(m_rows.AtStart(), std::nullopt);
}

TEST_F(EarlierRowsTest, WhatIsKnownAtTheStartStays) {
  Make("S.db", Insert(7));
  Count();
  Run("S.db", "DELETE FROM logcache");
  Look();
  EXPECT_EQ(m_rows.AtStart(), 1U);
}

TEST_F(EarlierRowsTest, WhatIsOutOfBudgetIsLeftForTheNextTime) {
  Make("S.db");
  Count(milliseconds(0));
  EXPECT_EQ(m_rows.AtStart(), std::nullopt);
  Look(milliseconds(0));
  EXPECT_EQ(m_rows.AtStart(), std::nullopt);
  Look();
  EXPECT_EQ(m_rows.AtStart(), 0U);
}

TEST_F(EarlierRowsTest, ADirectoryThatCouldNotBeReadIsListedLater) {
  const std::string strDirectory = m_directory.Path("later");
  m_directory.Write("later", 1);
  m_rows.Count(strDirectory + "/", kAllTheTime);
  m_rows.Look(strDirectory + "/", kFirstOfRun, kAllTheTime);
  EXPECT_EQ(m_rows.AtStart(), std::nullopt);
  std::filesystem::remove(strDirectory);
  std::filesystem::create_directory(strDirectory);
  Make("later/S.db", Insert(7));
  m_rows.Look(strDirectory + "/", kFirstOfRun, kAllTheTime);
  EXPECT_EQ(m_rows.AtStart(), std::nullopt);
  Run("later/S.db", "DELETE FROM logcache");
  m_rows.Look(strDirectory + "/", kFirstOfRun, kAllTheTime);
  EXPECT_EQ(m_rows.AtStart(), 0U);
}

}  // namespace
