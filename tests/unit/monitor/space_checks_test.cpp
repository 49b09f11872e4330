// Free space, directory total and file size against their limits.
#include <cerrno>
#include <cstring>

#include "tests/support/fake_clock.h"
#include "tests/unit/monitor/monitor_fixture.h"

namespace {

constexpr time_t kStart = 1700000000;

class SpaceChecksTest : public MonitorTest {
 protected:
  SpaceChecksTest() {
    std::filesystem::create_directory(Path("cache"));
    m_peer.Path() = m_strDirectory.c_str();
    m_peer.DiskFreeSpace() = 100;
    m_peer.TotalSize() = 1000;
    SetFree(101, 1);
  }
  // The blocks for unprivileged users and the block size are set to other values than those that count.
  void SetFree(unsigned long long u64Blocks, unsigned long uFragment) {
    CStorageFaults::SetStatvfs([=, this](const char*, struct statvfs* pStat) {
      ++m_iMeasured;
      *pStat = {};
      pStat->f_bfree = u64Blocks;
      pStat->f_frsize = uFragment;
      pStat->f_bavail = 1;
      pStat->f_bsize = 4096 * 7;
      return 0;
    });
  }
  void Fill(const std::string& strName, size_t uSize) {
    m_directory.Write("cache/" + strName, std::string(uSize, 'x'));
  }
  unsigned long long Total(const std::string& strDirectory) {
    std::vector<char> vecPath(CLogCacheMon::kPathBufferSize);
    strDirectory.copy(vecPath.data(), vecPath.size() - 1);
    unsigned long long u64Total = 0;
    CLogCacheMon::WalkLogCacheFiles(vecPath.data(), u64Total);
    EXPECT_EQ(strDirectory, vecPath.data());
    return u64Total;
  }

  CFakeClock m_clock{kStart};
  const std::string m_strDirectory = Path("cache/");
  int m_iMeasured = 0;
};

std::string DiskLine(unsigned long long u64Real) {
  return "*qmlogcache CLogCacheMon::CheckCacheSize CheckDiskFreeSpaceValid no space stop cache iRet[a0010011] "
         "u64RealDiskFreeSpace[" +
         std::to_string(u64Real) + "] u64DiskFreeSpace[100]";
}
std::string DirectoryLine(unsigned long long u64Real) {
  return "*qmlogcache CLogCacheMon::CheckCacheSize CheckLogCacheDirSpaceValid no space stop cache iRet[a0010012] "
         "u64RealLogCacheTotalSize[" +
         std::to_string(u64Real) + "] u64LogCacheTotalSize[1000]";
}
std::string ResumeLine(unsigned long long u64Discarded, unsigned long long u64Free, unsigned long long u64Total) {
  return "qmlogcache CLogCacheMon::CheckCacheSize resume cache m_64LogCacheDiscardedRangeCount[" +
         std::to_string(u64Discarded) + "] u64DiskFreeSpace[100] u64RealDiskFreeSpace[" + std::to_string(u64Free) +
         "] u64LogCacheTotalSize[1000] u64RealLogCacheTotalSize[" + std::to_string(u64Total) + "]";
}

TEST_F(SpaceChecksTest, FreeSpaceIsAllFreeBlocksInFragments) {
  unsigned long long u64Real = 0;
  SetFree(1ULL << 33, 512);
  EXPECT_EQ(0, CLogCacheMon::CheckDiskFreeSpaceValid("/", (1ULL << 42) - 1, u64Real));
  EXPECT_EQ(1ULL << 42, u64Real);
  EXPECT_EQ(kStatusNoDiskSpace, CLogCacheMon::CheckDiskFreeSpaceValid("/", 1ULL << 42, u64Real));
}

TEST_F(SpaceChecksTest, FreeSpaceEqualToTheLimitStopsCachingAndOneByteMorePasses) {
  SetFree(100, 1);
  EXPECT_EQ(kStatusNoDiskSpace, m_mon.CheckCacheSize());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, kLogWarning, DiskLine(100)}}));
  SetFree(101, 1);
  EXPECT_EQ(0, m_mon.CheckCacheSize());
}

TEST_F(SpaceChecksTest, AFileSystemThatCannotBeMeasuredPasses) {
  CStorageFaults::SetStatvfs([](const char*, struct statvfs*) {
    errno = EIO;
    return -1;
  });
  unsigned long long u64Real = 77;
  EXPECT_EQ(0, CLogCacheMon::CheckDiskFreeSpaceValid("/", 1000, u64Real));
  EXPECT_EQ(77U, u64Real);
  EXPECT_EQ(0, m_mon.CheckCacheSize());
}

TEST_F(SpaceChecksTest, ADirectoryWhoseTotalEqualsTheLimitStopsCaching) {
  Fill("a.db", 999);
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  Fill("any.name", 1);
  EXPECT_EQ(kStatusDirectoryFull, m_mon.CheckCacheSize());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, kLogWarning, DirectoryLine(1000)}}));
}

TEST_F(SpaceChecksTest, AFileThatHasReachedTheLimitIsFull) {
  m_peer.FileSize() = 50;
  Fill("a.db", 49);
  EXPECT_EQ(0, m_mon.CheckFileSize(Path("cache/a.db").c_str()));
  Fill("a.db", 50);
  EXPECT_EQ(kStatusFileFull, m_mon.CheckFileSize(Path("cache/a.db").c_str()));
  unsigned long long u64Real = 0;
  EXPECT_EQ(0, CLogCacheMon::CheckLogCacheFileSizeValid(Path("cache/a.db").c_str(), 51, u64Real));
  EXPECT_EQ(50U, u64Real);
}

TEST_F(SpaceChecksTest, AFilesWriteAheadLogCountsAsTheFile) {
  m_peer.FileSize() = 50;
  Fill("a.db", 30);
  Fill("a.db-wal", 19);
  Fill("b.db-wal", 100);
  EXPECT_EQ(0, m_mon.CheckFileSize(Path("cache/a.db").c_str()));
  Fill("a.db-wal", 20);
  EXPECT_EQ(kStatusFileFull, m_mon.CheckFileSize(Path("cache/a.db").c_str()));
  unsigned long long u64Real = 0;
  EXPECT_EQ(0, CLogCacheMon::CheckLogCacheFileSizeValid(Path("cache/a.db").c_str(), 51, u64Real));
  EXPECT_EQ(50U, u64Real);
}

TEST_F(SpaceChecksTest, ALogWithoutItsFileIsNoFile) {
  Fill("b.db-wal", 100);
  unsigned long long u64Real = 7;
  EXPECT_EQ(0, CLogCacheMon::CheckLogCacheFileSizeValid(Path("cache/b.db").c_str(), 50, u64Real));
  EXPECT_EQ(0U, u64Real);
}

TEST_F(SpaceChecksTest, AFileThatIsNotThereYetPasses) {
  EXPECT_EQ(0, m_mon.CheckFileSize(Path("cache/missing.db").c_str()));
}

TEST_F(SpaceChecksTest, WithoutAFileNameThereIsNothingToCheck) {
  EXPECT_EQ(kStatusNoObject, m_mon.CheckFileSize(""));
  unsigned long long u64Real = 5;
  EXPECT_EQ(0, CLogCacheMon::CheckLogCacheFileSizeValid("", 0, u64Real));
  EXPECT_EQ(0U, u64Real);
}

TEST_F(SpaceChecksTest, AMissingDirectoryAddsUpToNothing) {
  m_peer.Path() = Path("missing/").c_str();
  m_peer.TotalSize() = 1;
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  EXPECT_EQ(0U, Total(Path("missing/")));
}

TEST_F(SpaceChecksTest, LinksAddNothingAndSubdirectoriesCount) {
  Fill("a.db", 10);
  m_directory.Write("large", std::string(5000, 'x'));
  std::filesystem::create_symlink(Path("large"), Path("cache/link"));
  std::filesystem::create_directory_symlink(m_directory.Path(), Path("cache/linked"));
  std::filesystem::create_directories(Path("cache/sub/subsub"));
  Fill("sub/b", 20);
  Fill("sub/subsub/c", 40);
  EXPECT_EQ(70U, Total(m_strDirectory));
}

TEST_F(SpaceChecksTest, TheWalkAddsToWhatItIsGivenAndTakesNoPathForNothing) {
  unsigned long long u64Total = 5;
  CLogCacheMon::WalkLogCacheFiles(nullptr, u64Total);
  EXPECT_EQ(5U, u64Total);
}

TEST_F(SpaceChecksTest, AnEntryWhosePathWouldNotFitIsLeftOut) {
  std::string strDirectory = m_strDirectory;
  while (strDirectory.size() < CLogCacheMon::kPathBufferSize - 12) {
    strDirectory += "./";
  }
  strDirectory.resize(CLogCacheMon::kPathBufferSize - 12);
  if (strDirectory.back() != '/') {
    strDirectory.back() = '/';  // "./" became "/": the path still leads there
  }
  ASSERT_EQ(CLogCacheMon::kPathBufferSize - 12, strDirectory.size());
  Fill("1234567890", 1);   // 4084 + 10 + 1 = 4095
  Fill("12345678901", 2);  // one too long
  EXPECT_EQ(1U, Total(strDirectory));
}

TEST_F(SpaceChecksTest, AnEmptyDirectoryNamePassesBothTests) {
  CStorageFaults::SetStatvfs(nullptr);
  m_peer.Path() = "";
  m_peer.TotalSize() = 0;
  m_peer.DiskFreeSpace() = ~0ULL;
  unsigned long long u64Real = 7;
  EXPECT_EQ(0, CLogCacheMon::CheckLogCacheDirSpaceValid("", 0, u64Real));
  EXPECT_EQ(0U, u64Real);
  EXPECT_EQ(0, m_mon.CheckCacheSize());
}

TEST_F(SpaceChecksTest, WithinAMinuteAFailureIsRepeatedWithoutLookingAgain) {
  SetFree(1, 1);
  EXPECT_EQ(kStatusNoDiskSpace, m_mon.CheckCacheSize());
  SetFree(1000, 1);
  m_iMeasured = 0;
  for (const time_t tOffset : {1, 30, 59}) {
    CFakeClock::Set(kStart + tOffset);
    EXPECT_EQ(kStatusNoDiskSpace, m_mon.CheckCacheSize());
  }
  EXPECT_EQ(0, m_iMeasured);
  EXPECT_EQ(4U, m_peer.Discarded());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, kLogWarning, DiskLine(1)}}));
  CFakeClock::Set(kStart + 60);
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  EXPECT_EQ(1, m_iMeasured);
  EXPECT_EQ(0U, m_peer.Discarded());
  EXPECT_TRUE(LoggedOnce(kMainChannel, kLogNormal, ResumeLine(4, 1000, 0)));
}

TEST_F(SpaceChecksTest, WithinAMinuteASuccessIsRepeatedAndCountsNothing) {
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  SetFree(1, 1);
  CFakeClock::Advance(59);
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  EXPECT_EQ(0U, m_peer.Discarded());
  CFakeClock::Advance(1);
  EXPECT_EQ(kStatusNoDiskSpace, m_mon.CheckCacheSize());
}

TEST_F(SpaceChecksTest, WithinTheSameSecondOrWithTheClockSetBackTheFullCheckRuns) {
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  EXPECT_EQ(2, m_iMeasured);
  CFakeClock::Set(kStart - 1000);
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  EXPECT_EQ(3, m_iMeasured);
  EXPECT_EQ(static_cast<uint32_t>(kStart - 1000), m_peer.LastCheckTime());
}

TEST_F(SpaceChecksTest, TheSameFailureIsLoggedOnceAndAnotherOneAgain) {
  SetFree(1, 1);
  EXPECT_EQ(kStatusNoDiskSpace, m_mon.CheckCacheSize());
  EXPECT_EQ(kStatusNoDiskSpace, m_mon.CheckCacheSize());
  SetFree(500, 1);
  Fill("a.db", 1001);
  EXPECT_EQ(kStatusDirectoryFull, m_mon.CheckCacheSize());
  EXPECT_EQ(kStatusDirectoryFull, m_mon.CheckCacheSize());
  EXPECT_EQ(4U, m_peer.Discarded());
  Fill("a.db", 10);
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  EXPECT_EQ(0, m_mon.CheckCacheSize());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, kLogWarning, DiskLine(1)},
                             {kMainChannel, kLogWarning, DirectoryLine(1001)},
                             {kMainChannel, kLogNormal, ResumeLine(4, 500, 10)}}));
}

}  // namespace
