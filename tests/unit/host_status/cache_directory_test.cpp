#include "host/status/cache_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "status_test_support.h"

namespace {

class CacheDirectoryTest : public ::testing::Test {
 protected:
  CacheContents Scan() const { return ScanCacheDirectory(m_directory.Path()); }

  CStatusDirectory m_directory;
};

TEST_F(CacheDirectoryTest, AFileCountsWithItsSideFiles) {
  m_directory.Write("A.db", 1000);
  m_directory.Write("A.db-wal", 200);
  m_directory.Write("A.db-shm", 30);
  m_directory.Write("B.db", 5000);
  const CacheContents contents = Scan();
  ASSERT_TRUE(contents.bReadable);
  EXPECT_EQ(contents.u64Bytes, 6230U);
  ASSERT_EQ(contents.vecFiles.size(), 2U);
  EXPECT_EQ(contents.vecFiles[0].strSender, "B");
  EXPECT_EQ(contents.vecFiles[0].u64Bytes, 5000U);
  EXPECT_EQ(contents.vecFiles[1].strSender, "A");
  EXPECT_EQ(contents.vecFiles[1].u64Bytes, 1230U);
  EXPECT_FALSE(contents.vecFiles[1].optRows);
}

TEST_F(CacheDirectoryTest, BackupsAndWhatLiesBelowCountInTheTotalAlone) {
  m_directory.Write("A1.db.zip", 10);
  m_directory.Write(".db", 5);
  m_directory.Write("below/C.db", 100);
  const CacheContents contents = Scan();
  EXPECT_EQ(contents.u64Bytes, 115U);
  EXPECT_EQ(contents.uFiles, 0U);
  EXPECT_TRUE(contents.vecFiles.empty());
}

TEST_F(CacheDirectoryTest, LinksAndPipesAreNotFollowed) {
  m_directory.Write("elsewhere/real.db", 100);
  const CStatusDirectory other;
  other.Write("large.db", 5000);
  std::filesystem::create_symlink(other.Path("large.db"), m_directory.Path("L.db"));
  std::filesystem::create_directory_symlink(other.Path(), m_directory.Path("directory"));
  ASSERT_EQ(mkfifo(m_directory.Path("F.db").c_str(), 0600), 0);
  const CacheContents contents = Scan();
  EXPECT_EQ(contents.u64Bytes, 100U);
  EXPECT_TRUE(contents.vecFiles.empty());
}

TEST_F(CacheDirectoryTest, OfVeryManyFilesTheLargestAreTold) {
  for (size_t i = 0; i < kMostCacheFiles + 5; ++i) {
    m_directory.Write("S" + std::to_string(i) + ".db", i + 1);
  }
  const CacheContents contents = Scan();
  EXPECT_EQ(contents.uFiles, kMostCacheFiles + 5);
  ASSERT_EQ(contents.vecFiles.size(), kMostCacheFiles);
  EXPECT_EQ(ListCacheFiles(m_directory.Path())->size(), kMostCacheFiles + 5);
  EXPECT_EQ(contents.vecFiles.front().u64Bytes, kMostCacheFiles + 5);
}

TEST_F(CacheDirectoryTest, SendersAreReadableTextAndNoTwoAreTheSame) {
  m_directory.Write("a\xff.db", 30);
  m_directory.Write("a\xfe.db", 20);
  m_directory.Write("\xC3\xA4.db", 10);
  const CacheContents contents = Scan();
  EXPECT_EQ(contents.uFiles, 3U);
  EXPECT_EQ(contents.u64Bytes, 60U);
  ASSERT_EQ(contents.vecFiles.size(), 2U);
  EXPECT_EQ(contents.vecFiles[0].strSender, "a\xEF\xBF\xBD");
  EXPECT_EQ(contents.vecFiles[0].strFile, "a\xff.db");
  EXPECT_EQ(contents.vecFiles[0].u64Bytes, 30U);
  EXPECT_EQ(contents.vecFiles[1].strSender, "\xC3\xA4");
}

TEST_F(CacheDirectoryTest, NoDirectoryIsNotReadable) {
  const CacheContents none = ScanCacheDirectory(m_directory.Path("none/"));
  EXPECT_FALSE(none.bReadable);
  EXPECT_TRUE(none.bMissing);
  m_directory.Write("file", 1);
  const CacheContents file = ScanCacheDirectory(m_directory.Path("file"));
  EXPECT_FALSE(file.bReadable);
  EXPECT_FALSE(file.bMissing);
}

TEST(CacheSettingsTest, WithoutAFileTheDefaultsHold) {
  const CStatusDirectory prefix;
  const CacheSettings settings = ReadCacheSettings(prefix.Path("bin"));
  EXPECT_EQ(settings.strDirectory, prefix.Path("bin/../data/qmlogcache/"));
  EXPECT_EQ(settings.u64TotalLimit, uint64_t{2} << 30);
  EXPECT_EQ(settings.u64FileLimit, 524288000U);
  EXPECT_TRUE(settings.bKeepsAll);
}

TEST(CacheSettingsTest, ReadsTheComponentsConfiguration) {
  const CStatusDirectory prefix;
  std::filesystem::create_directories(prefix.Path("bin"));
  prefix.WriteText("etc/qmlogcache/qmlogcache.conf",
                   "[other]\nlogcachesize = 1\n[LogCache]\nlogcachepath = ../c/\nLOGCACHESIZE = 0x100000\n"
                   "logcachetotalsize = 7\ndatacoverflag = 1\nnonsense = 2\n");
  const CacheSettings settings = ReadCacheSettings(prefix.Path("bin"));
  EXPECT_EQ(settings.strDirectory, prefix.Path("bin/../c/"));
  EXPECT_EQ(settings.u64TotalLimit, 7U);
  EXPECT_EQ(settings.u64FileLimit, 1048576U);
  EXPECT_FALSE(settings.bKeepsAll);
}

}  // namespace
