// VACUUM and backups.
#include <zlib.h>

#include <chrono>
#include <filesystem>

#include "tests/unit/db/storage_fixture.h"

namespace {

std::string Unpacked(const std::string& strFile) {
  gzFile pFile = gzopen(strFile.c_str(), "rb");
  EXPECT_NE(nullptr, pFile) << strFile;
  EXPECT_EQ(0, gzdirect(pFile)) << strFile << " is no gzip file";
  std::string strBytes;
  char szBlock[4096];
  int iRead = 0;
  while (pFile != nullptr && (iRead = gzread(pFile, szBlock, sizeof szBlock)) > 0) {
    strBytes.append(szBlock, static_cast<size_t>(iRead));
  }
  EXPECT_EQ(0, iRead);
  EXPECT_EQ(Z_OK, gzclose(pFile));
  return strBytes;
}

class DbMaintenanceTest : public StorageTest {
 protected:
  void Backup(const std::string& strName) { m_db.BackupDbFile(Path(strName).c_str()); }

  CLogCacheDb m_db;
};

TEST_F(DbMaintenanceTest, ABackupTakesTheFilesPlaceAndTheOneBeforeMovesOn) {
  m_directory.Write("a.db", "first");
  Backup("a.db");
  EXPECT_EQ("first", Unpacked(Path("a1.db.zip")));
  EXPECT_FALSE(Exists(Path("a.db")));
  m_directory.Write("a.db", "second");
  Backup("a.db");
  EXPECT_EQ("first", Unpacked(Path("a2.db.zip")));
  EXPECT_EQ("second", Unpacked(Path("a1.db.zip")));
  m_directory.Write("a.db", "third");
  Backup("a.db");
  EXPECT_EQ("second", Unpacked(Path("a2.db.zip")));
  EXPECT_EQ("third", Unpacked(Path("a1.db.zip")));
  EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator(m_directory.Path()), {}));
  const LogLine line{
      kMainChannel, kLogLifecycle,
      "qmlogcache CLogCacheDb::BackupDbFile strDbFile[" + Path("a.db") + "] strZipName[" + Path("a") + "]"};
  EXPECT_EQ(3U, CLogCapture::Count(line.strChannel, line.iLevel, line.strText));
}

// What a process leaves that is killed while it writes a backup, or before it has removed the file.
TEST_F(DbMaintenanceTest, ABackupOfTheSameFileThatWasLeftByAKillCostsNoEarlierOne) {
  std::string strFile;
  for (int i = 0; i < 100000; ++i) {
    strFile += std::to_string(i);
  }
  const std::string strNewest = Path("a1.db.zip");
  m_directory.Write("a.db", strFile);
  ASSERT_EQ(1, m_db.GenZipFile(Path("a.db").c_str(), strNewest.c_str()));
  const auto uWhole = std::filesystem::file_size(strNewest);
  for (const auto uLeft : {uWhole, uWhole - 1, uWhole / 2, uintmax_t{0}}) {
    m_directory.Write("a.db", strFile);
    m_directory.Write("a2.db.zip", "an earlier file's");
    std::filesystem::resize_file(strNewest, uLeft);
    Backup("a.db");
    EXPECT_EQ("an earlier file's", BytesOf(Path("a2.db.zip"))) << uLeft;
    EXPECT_EQ(strFile, Unpacked(strNewest)) << uLeft;
  }
  // A whole one is not made anew, so that nothing can fail with the file already on its way out.
  m_directory.Write("a.db", strFile);
  m_directory.Write("a2.db.zip", "an earlier file's");
  const auto tMade = std::filesystem::last_write_time(strNewest);
  std::filesystem::last_write_time(strNewest, tMade - std::chrono::hours(1));
  Backup("a.db");
  EXPECT_EQ(tMade - std::chrono::hours(1), std::filesystem::last_write_time(strNewest));
  EXPECT_EQ("an earlier file's", BytesOf(Path("a2.db.zip")));
  EXPECT_EQ(strFile, Unpacked(strNewest));
  // It costs nothing to move where there is none; and one that holds anything else always moves on.
  std::filesystem::remove(Path("a2.db.zip"));
  m_directory.Write("a.db", strFile);
  Backup("a.db");
  EXPECT_EQ(strFile, Unpacked(Path("a2.db.zip")));
  m_directory.Write("a.db", strFile.substr(0, strFile.size() - 1));
  Backup("a.db");
  m_directory.Write("a.db", strFile.substr(1));
  Backup("a.db");
  EXPECT_EQ(strFile.substr(0, strFile.size() - 1), Unpacked(Path("a2.db.zip")));
  EXPECT_EQ(strFile.substr(1), Unpacked(strNewest));
}

TEST_F(DbMaintenanceTest, OnlyTheExactExtensionIsCutFromABackupsName) {
  m_directory.Write("a.log", "x");
  m_directory.Write("b.DB", "y");
  Backup("a.log");
  Backup("b.DB");
  EXPECT_EQ("x", Unpacked(Path("a.log1.zip")));
  EXPECT_EQ("y", Unpacked(Path("b.DB1.zip")));
  EXPECT_FALSE(Exists(Path("a.log")));
  EXPECT_FALSE(Exists(Path("b.DB")));
}

TEST_F(DbMaintenanceTest, BackingUpAMissingFileMovesTheNewestBackupAndIsLogged) {
  m_directory.Write("a1.db.zip", "newest");
  m_directory.Write("a2.db.zip", "older");
  Backup("a.db");
  EXPECT_FALSE(Exists(Path("a1.db.zip")));
  EXPECT_EQ("newest", BytesOf(Path("a2.db.zip")));
  EXPECT_TRUE(
      LoggedOnce(kMainChannel, kLogLifecycle,
                 "qmlogcache CLogCacheDb::BackupDbFile strDbFile[" + Path("a.db") + "] strZipName[" + Path("a") + "]"));
}

TEST_F(DbMaintenanceTest, ABackupIsTheFileByteForByte) {
  std::string strBytes;
  while (strBytes.size() < 600000) {  // more than two blocks
    strBytes += NoDatabase() + std::to_string(strBytes.size());
  }
  m_directory.Write("a.db", strBytes);
  Backup("a.db");
  EXPECT_TRUE(strBytes == Unpacked(Path("a1.db.zip")));
}

TEST_F(DbMaintenanceTest, ABackupOfAFileThatIsStillWithoutALogIsTheFileByteForByte) {
  const CPString strFile(Path("a.db").c_str());
  ASSERT_EQ(0, m_db.AddDbData(strFile, 1, 0, 0, kDataPlain, "p", "c", "d", 0));
  const std::string strBytes = BytesOf(Path("a.db"));
  m_db.BackupDbFile(strFile);
  EXPECT_TRUE(strBytes == Unpacked(Path("a1.db.zip")));
}

TEST_F(DbMaintenanceTest, ABackupHoldsWhatStoodInTheLog) {
  const CPString strFile(Path("a.db").c_str());
  for (unsigned long long u64Id = 1; u64Id <= 4; ++u64Id) {
    ASSERT_EQ(0, m_db.AddDbData(strFile, u64Id, 0, 0, kDataPlain, "p", "c", "d", 0));
  }
  m_db.BackupDbFile(strFile);
  for (const char* pszSuffix : {"", "-wal", "-shm", "-journal"}) {
    EXPECT_FALSE(Exists(Path("a.db") + pszSuffix)) << pszSuffix;
  }
  m_directory.Write("unpacked.db", Unpacked(Path("a1.db.zip")));
  EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4}), IdsOf(Path("unpacked.db")));
}

TEST_F(DbMaintenanceTest, ABackupAndItsNameAreDurableBeforeTheFileGoes) {
  const std::string strBackup = Path("a1.db.zip");
  m_directory.Write("a.db", NoDatabase());
  m_directory.Write("a1.db.zip", "the one before");
  std::vector<std::string> vecSynced;
  CStorageFaults::SetSyncHook([&](const std::string& strPath) {
    vecSynced.push_back(strPath);
    EXPECT_TRUE(Exists(Path("a.db"))) << strPath;
    EXPECT_EQ(NoDatabase(), Unpacked(strBackup)) << strPath;
    EXPECT_EQ("the one before", BytesOf(Path("a2.db.zip"))) << strPath;
  });
  Backup("a.db");
  EXPECT_EQ((std::vector<std::string>{strBackup, m_directory.Path()}), vecSynced);
  EXPECT_FALSE(Exists(Path("a.db")));
}

TEST_F(DbMaintenanceTest, ABackupIsItsOwnersAloneAndFollowsNoLink) {
  const mode_t oldMask = umask(0);
  m_directory.Write("precious", "keep");
  std::filesystem::create_symlink(Path("precious"), Path("a1.zip"));
  m_directory.Write("source", "x");
  EXPECT_EQ(1, m_db.GenZipFile(Path("source").c_str(), Path("a1.zip").c_str()));
  umask(oldMask);
  EXPECT_EQ("keep", BytesOf(Path("precious")));
  EXPECT_EQ(0600U, ModeOf(Path("a1.zip")));
  EXPECT_EQ("x", Unpacked(Path("a1.zip")));
}

TEST_F(DbMaintenanceTest, TheFileGoesAlsoWhenItsBackupCannotBeWritten) {
  m_directory.Write("a.db", "x");
  std::filesystem::create_directories(Path("a1.db.zip/full"));
  std::filesystem::create_directories(Path("a2.db.zip/full"));
  Backup("a.db");
  EXPECT_FALSE(Exists(Path("a.db")));
  EXPECT_TRUE(std::filesystem::is_directory(Path("a1.db.zip")));
}

TEST_F(DbMaintenanceTest, CompressingNothingGivesAnEmptyArchiveAndZero) {
  m_directory.Write("empty", "");
  EXPECT_EQ(0, m_db.GenZipFile(Path("empty").c_str(), Path("e.zip").c_str()));
  EXPECT_EQ("", Unpacked(Path("e.zip")));
}

TEST_F(DbMaintenanceTest, CompressingWithoutSourceOrTargetGivesZero) {
  m_directory.Write("source", "x");
  EXPECT_EQ(0, m_db.GenZipFile(nullptr, Path("z").c_str()));
  EXPECT_EQ(0, m_db.GenZipFile(Path("source").c_str(), nullptr));
  EXPECT_EQ(0, m_db.GenZipFile(Path("missing").c_str(), Path("z").c_str()));
  EXPECT_FALSE(Exists(Path("z")));
  EXPECT_EQ(0, m_db.GenZipFile(Path("source").c_str(), Path("missing/z").c_str()));
}

TEST_F(DbMaintenanceTest, VacuumOfAMissingFileMakesOne) {
  EXPECT_EQ(0, m_db.ReleaseDbFileSpace(Path("a.db").c_str()));
  EXPECT_TRUE(IdsOf(Path("a.db")).empty());
}

TEST_F(DbMaintenanceTest, VacuumGivesTheSpaceOfDeletedRowsBack) {
  const CPString strFile(Path("a.db").c_str());
  const CPString strBig(std::string(1000000, 'x'));
  ASSERT_EQ(0, m_db.AddDbData(strFile, 1, 0, 0, kDataPlain, "p", "c", strBig, 0));
  ASSERT_EQ(0, m_db.AddDbData(strFile, 2, 0, 0, kDataPlain, "p", "c", "small", 0));
  ASSERT_EQ(0, m_db.DeleteDbData(1, strFile));
  EXPECT_EQ(0, m_db.ReleaseDbFileSpace(strFile));
  EXPECT_LT(std::filesystem::file_size(Path("a.db")), 100000U);
  EXPECT_EQ(std::vector<unsigned long long>{2}, IdsOf(Path("a.db")));
}

TEST_F(DbMaintenanceTest, AVacuumThatFailsIsLoggedWithItsOwnResult) {
  CStorageFaults::SetExecHook([](std::string_view svSql) { return svSql == "VACUUM" ? SQLITE_FULL : 0; });
  EXPECT_EQ(SQLITE_FULL, m_db.ReleaseDbFileSpace(Path("a.db").c_str()));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogWarning,
        "*qmlogcache CLogCacheDb::ReleaseDbFileSpace sqlite3_exec_sql error iRet[d] strFile[" + Path("a.db") + "]"}}));
}

TEST_F(DbMaintenanceTest, AVacuumWithoutAConnectionIsRefused) {
  EXPECT_EQ(-1, m_db.ReleaseDbFileSpace(Path("missing/a.db").c_str()));
}

}  // namespace
