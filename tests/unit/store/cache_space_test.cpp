// Limits of the space on disk, and what becomes of a record that meets one.
#include <fstream>
#include <string>

#include "tests/unit/store/store_fixture.h"

namespace {

class CacheSpaceTest : public StoreTest {
 protected:
  // The line of an intake whose write was turned down.
  static ::testing::AssertionResult RefusedOnce(const char* pszCode, const char* pszId) {
    return LoggedOnce(kMainChannel, 3,
                      std::string("*qmlogcache InsertExecData Error iRet[") + pszCode +
                          "] StartTime[0] ReSendCount[0] u64DataId[" + pszId +
                          "] iPriv[1] iMsgType[1] iDataSaveStatus[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] "
                          "strProduct[prod] strCombo[comb]");
  }
};

TEST_F(CacheSpaceTest, AFullFileLeavesTheRecordPending) {
  Open("logcachesize = 1\n");
  EXPECT_EQ(0, Add(1));  // the file is not there yet
  EXPECT_EQ(0, Add(2));
  EXPECT_TRUE(RefusedOnce("a0010013", "2"));
  EXPECT_EQ(1, Status(2));
  EXPECT_EQ(2u, Peer().QueueCount(1));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_EQ(static_cast<int>(0xA0010013), Data().AddCacheData(Peer().Find(2)));
}

TEST_F(CacheSpaceTest, WithCoverTheOldestRowOfAFullFileMakesRoom) {
  Open("logcachesize = 1\ndatacoverflag = 1\n");
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ((DataIds{2}), Rows());
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids(2));
  EXPECT_EQ(0, Add(3));
  EXPECT_EQ((DataIds{3}), Rows());
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(CacheSpaceTest, WithoutFreeDiskSpaceTheRecordStaysPending) {
  Open("diskfreesize = 1000\n");
  SetFreeSpace(1000);
  EXPECT_EQ(0, Add(1));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache CLogCacheMon::CheckCacheSize CheckDiskFreeSpaceValid no space stop cache iRet[a0010011] "
        "u64RealDiskFreeSpace[1000] u64DiskFreeSpace[1000]"},
       {kMainChannel, 3,
        "*qmlogcache InsertExecData Error iRet[a0010011] StartTime[0] ReSendCount[0] u64DataId[1] iPriv[1] iMsgType[1] "
        "iDataSaveStatus[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[comb]"}}));
  EXPECT_EQ(1, Status(1));
  EXPECT_FALSE(Exists(CacheFile()));
}

TEST_F(CacheSpaceTest, ARequeueWritesARecordOnceThereIsSpaceAgain) {
  Open("diskfreesize = 1000\n");
  SetFreeSpace(1000);
  EXPECT_EQ(0, Add(1));
  SetFreeSpace(1001);
  CFakeClock::Advance(60);
  EXPECT_EQ(0, Data().ReAddDataAction(1));
  EXPECT_EQ(2, Status(1));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 2,
      "qmlogcache CLogCacheMon::CheckCacheSize resume cache m_64LogCacheDiscardedRangeCount[1] u64DiskFreeSpace[1000] "
      "u64RealDiskFreeSpace[1001] u64LogCacheTotalSize[2147483648] u64RealLogCacheTotalSize[0]"));
}

TEST_F(CacheSpaceTest, AFullDirectoryLeavesTheRecordPending) {
  Open("logcachetotalsize = 5\n");
  std::ofstream(CachePath() + "foreign") << "12345";
  EXPECT_EQ(0, Add(1));
  EXPECT_TRUE(RefusedOnce("a0010012", "1"));
  EXPECT_EQ(1, Status(1));
  EXPECT_FALSE(Exists(CacheFile()));
}

TEST_F(CacheSpaceTest, WithCoverTheOldestRowMakesRoomInAFullDirectory) {
  Open("logcachetotalsize = 5\ndatacoverflag = 1\n");
  EXPECT_EQ(0, Add(1));
  CFakeClock::Advance(60);
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ((DataIds{2}), Rows());
  EXPECT_EQ(2, Status(2));
}

TEST_F(CacheSpaceTest, TheFilesOwnLimitIsAskedFirst) {
  Open("logcachesize = 1\ndiskfreesize = 1000\n");
  EXPECT_EQ(0, Add(1));
  int iAsked = 0;
  CStorageFaults::SetStatvfs([&](const char*, struct statvfs* pStat) {
    ++iAsked;
    *pStat = {};
    return 0;
  });
  EXPECT_EQ(0, Add(2));  // file and disk are full
  EXPECT_TRUE(RefusedOnce("a0010013", "2"));
  EXPECT_EQ(0, iAsked);
  EXPECT_EQ(0, Add(3, kOtherSender));  // the disk alone is
  EXPECT_EQ(1, Status(3));
  EXPECT_EQ(1, iAsked);
}

TEST_F(CacheSpaceTest, ASaveAsksForNoSpace) {
  Open("logcachesize = 1\ndiskfreesize = 1000\n");
  EXPECT_EQ(0, Add(1));
  SetFreeSpace(0);
  CFakeClock::Advance(60);
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ(0, Add(3, kOtherSender));
  EXPECT_EQ((DataIds{2, 3}), Peer().Ids(1));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((DataIds{1, 2, 3}), Peer().Ids(2));
  EXPECT_EQ((DataIds{1, 2}), Rows());
  EXPECT_EQ((DataIds{3}), Rows(kOtherSender));
}

}  // namespace
