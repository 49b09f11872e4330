// Finding cache files and reading them back.
#include <sys/stat.h>

#include <algorithm>

#include "tests/unit/cachefile/cachefile_fixture.h"

namespace {

class LoadingTest : public CacheFileTest {
 protected:
  LoadingTest() { m_loader.InitFile(1000, m_strDirectory, ""); }
  std::list<_CacheExecData> Load() {
    std::list<_CacheExecData> listData;
    EXPECT_TRUE(m_loader.GetCacheData(listData));
    return listData;
  }
  void SetTime(const std::string& strFile, time_t tSeconds) {
    const timespec times[] = {{tSeconds, 0}, {tSeconds, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, strFile.c_str(), times, 0));
  }

  CLogCacheFile m_loader;
};

TEST_F(LoadingTest, OnlyDatabaseFilesOfTheDirectoryItselfAreLoaded) {
  MakeFile("a", 2);
  m_directory.Write("cache/b.txt", "x");
  m_directory.Write("cache/c.zip", "x");
  std::filesystem::copy(Path("cache/a.db"), Path("cache/e.DB"));
  std::filesystem::create_directory(Path("cache/d.db"));
  std::filesystem::copy(Path("cache/a.db"), Path("outside.db"));
  std::filesystem::create_symlink(Path("outside.db"), Path("cache/f.db"));
  const auto listData = Load();
  ASSERT_EQ(2U, listData.size());
  for (const _CacheExecData& data : listData) {
    EXPECT_EQ("a", data.strPluginId.View());
    EXPECT_EQ(Path("cache/a.db"), data.strFileName.View());
  }
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(LoadingTest, EveryFieldComesBack) {
  ASSERT_EQ(0, m_file.AddCacheData(0x6553f10000000001ULL, 11, 10101, "it's", "c", "d\xc3\xa4", 0));
  const auto listData = Load();
  ASSERT_EQ(1U, listData.size());
  const _CacheExecData& data = listData.front();
  EXPECT_EQ(0x6553f10000000001ULL, data.u64DataId);
  EXPECT_EQ(11, data.iPriv);
  EXPECT_EQ(10101, data.iMsgType);
  EXPECT_EQ("sender", data.strPluginId.View());
  EXPECT_EQ("it's", data.strProduct.View());
  EXPECT_EQ("c", data.strCombo.View());
  EXPECT_EQ("d\xc3\xa4", data.strData.View());
  EXPECT_EQ(m_strFile, data.strFileName.View());
}

TEST_F(LoadingTest, TheLimitCountsOverAllFiles) {
  MakeFile("a", 8);
  MakeFile("b", 8);
  m_loader.InitFile(10, m_strDirectory, "");
  const auto listData = Load();
  ASSERT_EQ(10U, listData.size());
  const CPString strFirst = listData.front().strFileName;
  size_t i = 0;
  for (const _CacheExecData& data : listData) {
    EXPECT_EQ(i < 8, data.strFileName == strFirst);
    EXPECT_EQ(i % 8 + 1, data.u64DataId);
    ++i;
  }
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(LoadingTest, ALimitOfZeroReadsNothing) {
  MakeFile("a", 1);
  m_loader.InitFile(0, m_strDirectory, "");
  EXPECT_TRUE(Load().empty());
  std::list<_CacheExecData> listData;
  EXPECT_FALSE(m_loader.ParseCacheData(Path("cache/a.db").c_str(), listData));
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(LoadingTest, AFullListIsToldAtTheLastRowAndNotEarlier) {
  MakeFile("a", 3);
  const CPString strFile(Path("cache/a.db").c_str());
  std::list<_CacheExecData> listData;
  m_loader.InitFile(4, m_strDirectory, "");
  EXPECT_TRUE(m_loader.ParseCacheData(strFile, listData));
  m_loader.InitFile(3, m_strDirectory, "");
  EXPECT_FALSE(m_loader.ParseCacheData(strFile, listData));
  EXPECT_EQ(3U, listData.size());
}

TEST_F(LoadingTest, ThePluginIdEndsAtTheLastDot) {
  MakeFile("plain", 1);
  MakeFile("x.y", 1);
  std::vector<std::string> vecIds;
  for (const _CacheExecData& data : Load()) {
    vecIds.emplace_back(data.strPluginId.View());
  }
  std::sort(vecIds.begin(), vecIds.end());
  EXPECT_EQ((std::vector<std::string>{"plain", "x.y"}), vecIds);
}

TEST_F(LoadingTest, AnUnchangedFileIsReadOnce) {
  MakeFile("a", 2);
  MakeFile("b", 1);
  SetTime(Path("cache/a.db"), 1000);
  SetTime(Path("cache/b.db"), 1000);
  EXPECT_EQ(3U, Load().size());
  EXPECT_EQ(2U, CLogCacheFilePeer(m_loader).SeenFiles());
  EXPECT_EQ(0U, Load().size());
}

TEST_F(LoadingTest, ARowThatCameInBetweenIsReadTheNextTime) {
  MakeFile("a", 3);
  EXPECT_EQ(3U, Load().size());
  {
    CLogCacheFile file;
    file.InitFile(1000, m_strDirectory, "a");
    ASSERT_EQ(0, Add(file, 9));
  }
  EXPECT_EQ(4U, Load().size());
  EXPECT_EQ(0U, Load().size());
}

TEST_F(LoadingTest, AFileOfAnotherSizeOrTimeHasChanged) {
  const CPString strFile(m_directory.Write("cache/a.db", "1234").c_str());
  SetTime(Path("cache/a.db"), 1000);
  EXPECT_TRUE(m_loader.IsCacheFileModify(strFile));
  EXPECT_FALSE(m_loader.IsCacheFileModify(strFile));
  SetTime(Path("cache/a.db"), 1001);
  EXPECT_TRUE(m_loader.IsCacheFileModify(strFile));
  EXPECT_FALSE(m_loader.IsCacheFileModify(strFile));
  m_directory.Write("cache/a.db", "12345");
  SetTime(Path("cache/a.db"), 1001);
  EXPECT_TRUE(m_loader.IsCacheFileModify(strFile));
  EXPECT_FALSE(m_loader.IsCacheFileModify(strFile));
}

TEST_F(LoadingTest, AFileWhoseAttributesCannotBeReadHasAlwaysChanged) {
  EXPECT_TRUE(m_loader.IsCacheFileModify(Path("cache/missing.db").c_str()));
  EXPECT_TRUE(m_loader.IsCacheFileModify(Path("cache/missing.db").c_str()));
}

TEST_F(LoadingTest, AFileThatIsNoDatabaseIsReportedAndStaysAndTheOthersLoad) {
  MakeFile("good", 2);
  m_directory.Write("cache/bad.db", NoDatabase());
  EXPECT_EQ(2U, Load().size());
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, kLogWarning,
      "*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_opendb error iRet[1a] strFile[" + Path("cache/bad.db") + "]"));
  bool bReported = false;
  for (const LogLine& line : CLogCapture::Lines()) {
    bReported |= line.iLevel == kLogWarning &&
                 line.strText.starts_with(
                     "*qmlogcache CLogCacheFile::ParseCacheData GetAllDbData Error[a0010021] "
                     "dwCountLimit[") &&
                 line.strText.ends_with("] strFileName[" + Path("cache/bad.db") + "]");
  }
  EXPECT_TRUE(bReported);
  EXPECT_EQ(NoDatabase(), BytesOf(Path("cache/bad.db")));
}

TEST_F(LoadingTest, AFileThatCannotBeReadIsReportedWithTheRowsStillWanted) {
  { CShell(Path("cache/a.db")).Run("create table other (x)"); }
  std::list<_CacheExecData> listData(3);
  EXPECT_TRUE(m_loader.ParseCacheData(Path("cache/a.db").c_str(), listData));
  EXPECT_EQ(3U, listData.size());
  EXPECT_TRUE(LoggedOnce(kMainChannel, kLogWarning,
                         "*qmlogcache CLogCacheFile::ParseCacheData GetAllDbData Error[a0010027] dwCountLimit[997] "
                         "strFileName[" +
                             Path("cache/a.db") + "]"));
}

TEST_F(LoadingTest, WithoutADirectoryNothingIsLoaded) {
  CLogCacheFile loader;
  std::list<_CacheExecData> listData;
  EXPECT_FALSE(loader.GetCacheData(listData));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogWarning, "*qmlogcache CLogCacheFile::GetCacheData m_strLogCachePath is empty"}}));
}

TEST_F(LoadingTest, ADirectoryThatCannotBeOpenedIsReported) {
  std::list<_CacheExecData> listData;
  m_loader.InitFile(10, Path("missing/").c_str(), "");
  EXPECT_FALSE(m_loader.GetCacheData(listData));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogWarning,
        "*qmlogcache CLogCacheFile::GetCacheData opendir Error m_strLogCachePath[" + Path("missing/") + "]"}}));
}

}  // namespace
