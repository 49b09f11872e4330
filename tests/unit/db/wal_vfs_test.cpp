// Which syncs a write costs, and when a log's directory is among them.
#include "db/wal_vfs.h"

#include <string_view>

#include "platform/storage_sync.h"
#include "tests/unit/db/storage_fixture.h"

namespace {

class WalVfsTest : public StorageTest {
 protected:
  WalVfsTest() : m_iSync(QmGetStorageSync()) { EXPECT_EQ(0, QmSetStorageSync(2)); }
  ~WalVfsTest() override { EXPECT_EQ(0, QmSetStorageSync(m_iSync)); }

  // Inserts one row and counts its syncs from nought.
  void Insert(const std::string& strFile, unsigned long long u64DataId) {
    CStorageFaults::Reset();
    EXPECT_EQ(0, m_db.AddDbData(strFile.c_str(), u64DataId, 1, 1, 0, "p", "c", "data", 0));
  }

  CLogCacheDb m_db;
  const std::string m_strFile = Path("a.db");

 private:
  const int m_iSync;
};

TEST_F(WalVfsTest, LeavesTheDefaultVfsToTheHost) {
  ASSERT_STREQ("qmlogcache", WalVfsName());
  EXPECT_STREQ("unix", sqlite3_vfs_find(nullptr)->zName);
  EXPECT_NE(nullptr, sqlite3_vfs_find("qmlogcache"));
}

TEST_F(WalVfsTest, AnInsertCostsOneSyncOfTheLog) {
  for (unsigned long long u64DataId = 1; u64DataId <= 3; ++u64DataId) {
    Insert(m_strFile, u64DataId);
  }
  for (unsigned long long u64DataId = 4; u64DataId <= 10; ++u64DataId) {
    Insert(m_strFile, u64DataId);
    EXPECT_EQ(1U, CStorageFaults::FileSyncs()) << u64DataId;
    EXPECT_EQ(0U, CStorageFaults::DirectorySyncs()) << u64DataId;
  }
}

TEST_F(WalVfsTest, ANewLogsDirectoryIsSynced) {
  Insert(m_strFile, 1);  // makes the file, by way of a rollback journal
  Insert(m_strFile, 2);  // makes the log
  EXPECT_TRUE(Exists(m_strFile + "-wal"));
  EXPECT_GE(CStorageFaults::DirectorySyncs(), 1U);
}

TEST_F(WalVfsTest, ALogThatAnotherToolRemovedIsMadeDurableAgain) {
  for (unsigned long long u64DataId = 1; u64DataId <= 3; ++u64DataId) {
    Insert(m_strFile, u64DataId);
  }
  {
    CShell shell(m_strFile);
    shell.Run("select count(*) from logcache");
  }
  ASSERT_FALSE(Exists(m_strFile + "-wal"));
  Insert(m_strFile, 4);
  EXPECT_EQ(1U, CStorageFaults::DirectorySyncs());
  EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4}), IdsOf(m_strFile));
}

TEST_F(WalVfsTest, ALogThatAnotherToolPutInThePlaceOfAKnownOneIsMadeDurableOnce) {
  for (unsigned long long u64DataId = 1; u64DataId <= 4; ++u64DataId) {
    Insert(m_strFile, u64DataId);
  }
  ASSERT_EQ(0U, CStorageFaults::DirectorySyncs());
  const std::string strLog = m_strFile + "-wal";
  std::filesystem::copy_file(strLog, Path("copy"));  // another file: both are there at the same time
  std::filesystem::rename(Path("copy"), strLog);
  Insert(m_strFile, 5);
  EXPECT_EQ(1U, CStorageFaults::DirectorySyncs());
  Insert(m_strFile, 6);
  EXPECT_EQ(0U, CStorageFaults::DirectorySyncs());
  EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4, 5, 6}), IdsOf(m_strFile));
}

TEST_F(WalVfsTest, ALogOfUnknownOriginIsMadeDurableOnce) {
  for (unsigned long long u64DataId = 1; u64DataId <= 3; ++u64DataId) {
    Insert(m_strFile, u64DataId);
  }
  const std::string strCopy = Path("b.db");
  for (const char* pszSuffix : {"", "-wal"}) {
    std::filesystem::copy_file(m_strFile + pszSuffix, strCopy + pszSuffix);
  }
  Insert(strCopy, 4);
  EXPECT_EQ(1U, CStorageFaults::DirectorySyncs());
  Insert(strCopy, 5);
  EXPECT_EQ(0U, CStorageFaults::DirectorySyncs());
  EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4, 5}), IdsOf(strCopy));
}

TEST_F(WalVfsTest, ATruncatedLogsDirectoryIsSyncedWithItsNextWrite) {
  for (unsigned long long u64DataId = 1; u64DataId <= 3; ++u64DataId) {
    Insert(m_strFile, u64DataId);
  }
  std::filesystem::resize_file(m_strFile + "-wal", 0);
  Insert(m_strFile, 4);
  EXPECT_EQ(1U, CStorageFaults::DirectorySyncs());
}

TEST_F(WalVfsTest, HundredInsertsCostAtMostOneAndAFifthFileSyncsEach) {
  Insert(m_strFile, 1);
  Insert(m_strFile, 2);
  CStorageFaults::Reset();
  for (unsigned long long u64DataId = 3; u64DataId <= 102; ++u64DataId) {
    EXPECT_EQ(0, m_db.AddDbData(m_strFile.c_str(), u64DataId, 1, 1, 0, "p", "c", std::string(400, 'x').c_str(), 0));
  }
  EXPECT_LE(CStorageFaults::FileSyncs(), 120U);
  EXPECT_LE(CStorageFaults::DirectorySyncs(), 10U);
}

TEST_F(WalVfsTest, WithoutPowerCutSafetyAnInsertCostsNoSync) {
  for (unsigned long long u64DataId = 1; u64DataId <= 3; ++u64DataId) {
    Insert(m_strFile, u64DataId);
  }
  EXPECT_EQ(0, QmSetStorageSync(1));
  Insert(m_strFile, 4);
  EXPECT_EQ(0U, CStorageFaults::FileSyncs());
}

}  // namespace
