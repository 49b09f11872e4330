// The limits of the cache on disk: what stops caching, what resumes it, and what becomes of the records.
#include <filesystem>
#include <fstream>

#include "cache_file_fixture.h"

namespace {

constexpr char kStopped[] = "*qmlogcache CLogCacheMon::CheckCacheSize ";
constexpr char kResumed[] = "qmlogcache CLogCacheMon::CheckCacheSize resume cache ";
constexpr time_t kCheckSeconds = 60;

class SpaceTest : public CCacheFileTest {
 protected:
  static std::string InsertError(const std::string& strCode, uint64_t u64DataId) {
    return "*qmlogcache InsertExecData Error iRet[" + strCode + "] StartTime[0] ReSendCount[0] u64DataId[" +
           ToHex(u64DataId) + "] iPriv[1] iMsgType[1] iDataSaveStatus[1] strPluginId[" + kProducerText +
           "] strProduct[] strCombo[]";
  }
  // A file in the cache directory that is no cache file, of that length and without contents.
  void PutBallast(uintmax_t uBytes) {
    const std::string strFile = m_prefix.CacheDirectory() + "ballast";
    std::ofstream(strFile).close();
    std::filesystem::resize_file(strFile, uBytes);
  }
};

TEST_F(SpaceTest, WithTooLittleFreeSpaceARecordTravelsWithoutARow) {
  m_prefix.Configure("diskfreesize = 0xffffffffffffff\n");
  CReplacedDisk::ShowFree(0xffffffffffffff - 511);  // the most that is still too little, in whole fragments
  BeginConnectedLife();
  FileRecord();
  ExpectLine(3, std::string(kStopped) +
                    "CheckDiskFreeSpaceValid no space stop cache iRet[a0010011] "
                    "u64RealDiskFreeSpace[72057594037927424] u64DiskFreeSpace[72057594037927935]");
  ExpectLine(3, InsertError("a0010011", IdOf(1)));
  ASSERT_TRUE(m_router.WaitForSent(1));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), kWireTimeout)));
  EXPECT_EQ(m_log.Count("*qmlogcache ReInsertExecData Error iRet[a0010011] StartTime[" + ToHex(kFirstLife) +
                        "] ReSendCount[0] u64DataId[" + ToHex(IdOf(1)) + "] iPriv[1] iMsgType[1] iDataSaveStatus[1] "),
            1u);
  ASSERT_TRUE(m_router.WaitForSent(2));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  m_host.Stop();
  EXPECT_EQ(m_log.Count(kStopped), 1u);
  EXPECT_EQ(NamesIn(m_prefix.CacheDirectory()), std::vector<std::string>{});
}

TEST_F(SpaceTest, TheRealDiskHasLessThanSixtyFourPebibytesFree) {
  m_prefix.Configure("diskfreesize = 0xffffffffffffff\n");
  BeginConnectedLife();
  FileRecord();
  EXPECT_EQ(m_log.Count(std::string(kStopped) + "CheckDiskFreeSpaceValid no space stop cache iRet[a0010011] "), 1u);
  ASSERT_TRUE(m_router.WaitForSent(1));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  EXPECT_EQ(NamesIn(m_prefix.CacheDirectory()), std::vector<std::string>{});
}

TEST_F(SpaceTest, FreeSpaceOneFragmentAboveTheLimitIsEnough) {
  m_prefix.Configure("diskfreesize = 1048576\n");
  CReplacedDisk::ShowFree(1048576 + 512);
  BeginConnectedLife();
  FileRecord();
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1)}));
  ExpectNoWarning();
}

TEST_F(SpaceTest, CachingResumesWhenFreeSpaceIsBack) {
  m_prefix.Configure("diskfreesize = 1048576\n");
  CReplacedDisk::ShowFree(1048576);
  BeginLife();
  FileRecord();
  CReplacedDisk::ShowFree(4096000);
  m_clock.Advance(kCheckSeconds - 1);
  FileRecord();  // within the minute the last answer holds
  EXPECT_TRUE(Rows().empty());
  m_clock.Advance(1);
  FileRecord();
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(3)}));
  EXPECT_EQ(m_log.Count(kStopped), 1u);
  ExpectLine(2, std::string(kResumed) +
                    "m_64LogCacheDiscardedRangeCount[2] u64DiskFreeSpace[1048576] u64RealDiskFreeSpace[4096000] "
                    "u64LogCacheTotalSize[2147483648] u64RealLogCacheTotalSize[0]");
  m_host.Stop();  // the save asks nobody for space
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1), IdOf(2), IdOf(3)}));
}

TEST_F(SpaceTest, AFullDirectoryStopsCachingUntilItIsCleared) {
  constexpr uintmax_t kLimit = 100000;
  m_prefix.Configure("logcachetotalsize = 100000\ndiskfreesize = 0\n");
  CReplacedDisk::ShowFree(512);
  BeginConnectedLife();
  PutBallast(kLimit);
  FileRecord();
  ExpectLine(3, std::string(kStopped) +
                    "CheckLogCacheDirSpaceValid no space stop cache iRet[a0010012] u64RealLogCacheTotalSize[100000] "
                    "u64LogCacheTotalSize[100000]");
  ExpectLine(3, InsertError("a0010012", IdOf(1)));
  ASSERT_TRUE(m_router.WaitForSent(1));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  EXPECT_TRUE(Rows().empty());
  PutBallast(kLimit - 1);
  m_clock.Advance(kCheckSeconds);
  FileRecord();
  ExpectLine(2, std::string(kResumed) +
                    "m_64LogCacheDiscardedRangeCount[1] u64DiskFreeSpace[0] u64RealDiskFreeSpace[512] "
                    "u64LogCacheTotalSize[100000] u64RealLogCacheTotalSize[99999]");
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(2)}));
}

TEST_F(SpaceTest, AFullFileTakesNoFurtherRecord) {
  m_prefix.Configure("logcachesize = 1\n");
  BeginLife();
  FileRecord(10101, "first");  // there is no file yet
  FileRecord(10101, "second");
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1)}));
  ExpectLine(3, InsertError("a0010013", IdOf(2)));
  EXPECT_EQ(m_log.Count(kStopped), 0u);
  ASSERT_TRUE(Succeeded(m_router.Deliver(10101, kOtherProducer, "another file")));
  EXPECT_EQ(RowIds(kOtherProducerText), (std::vector<uint64_t>{IdOf(3)}));
}

struct CoverCase {
  const char* pszName;
  const char* pszLimit;
};

class CoverTest : public SpaceTest, public ::testing::WithParamInterface<CoverCase> {};

TEST_P(CoverTest, TheNewestRecordTakesTheOldestRowsPlace) {
  // Three rows from a life without limits.
  BeginLife();
  for (int i = 0; i < 3; ++i) {
    FileRecord();
  }
  m_host.EndLife();
  ASSERT_EQ(Rows().size(), 3u);
  m_prefix.Configure(std::string("datacoverflag = 1\n") + GetParam().pszLimit);
  m_clock.Advance(1);
  BeginLife();
  FileRecord();
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(2), IdOf(3), IdOf(1, kFirstLife + 1)}));
  FileRecord();
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(3), IdOf(1, kFirstLife + 1), IdOf(2, kFirstLife + 1)}));
  EXPECT_EQ(m_log.Count("*qmlogcache InsertExecData"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Limits, CoverTest,
                         ::testing::Values(CoverCase{"FreeSpace", "diskfreesize = 0xffffffffffffff\n"},
                                           CoverCase{"Directory", "logcachetotalsize = 1\n"},
                                           CoverCase{"File", "logcachesize = 1\n"}),
                         [](const auto& param) { return std::string(param.param.pszName); });

}  // namespace
