// Reading the cache files back.
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/unit/store/store_fixture.h"

namespace {

constexpr char kScanOfOne[] = "qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[1]";

class LoadTest : public StoreTest {
 protected:
  // Puts a row into a sender's file behind the store's back.
  void StoreRow(unsigned long long u64DataId, const char* pszSender = kSenderText) {
    CLogCacheFile file;
    file.InitFile(1000, CachePath().c_str(), pszSender);
    ASSERT_EQ(0, file.AddCacheData(u64DataId, 1, 1, "prod", "comb", "text", 0));
  }
  void StoreRows(unsigned long long u64Count) {
    for (unsigned long long u64DataId = 1; u64DataId <= u64Count; ++u64DataId) {
      StoreRow(u64DataId);
    }
  }
  // Runs once, after the next scan and before its first record is filed.
  static void AfterScan(const std::function<void()>& action) {
    CLogCapture::SetHook([action](const LogLine& line) {
      if (line.strText.find("GetCacheData cacheDataList[") != std::string::npos) {
        CLogCapture::SetHook(nullptr);
        action();
      }
    });
  }
};

TEST_F(LoadTest, BringsBackEveryFieldAndFindsTheSendersFile) {
  Open();
  CLogCacheFile file;
  file.InitFile(1000, CachePath().c_str(), kOtherSender);
  ASSERT_EQ(0, file.AddCacheData(0x6553f10000000001ULL, 13, 2, "it's", "co'mb", "it's <data>", 0));
  EXPECT_EQ(1, Data().LoadExecData());
  const _LogExecData* pRecord = Peer().Find(0x6553f10000000001ULL);
  ASSERT_NE(nullptr, pRecord);
  EXPECT_EQ(13, pRecord->iPriv);
  EXPECT_EQ(2, pRecord->iMsgType);
  EXPECT_EQ(2, pRecord->iDataSaveStatus);
  EXPECT_EQ(0u, pRecord->StartTime);
  EXPECT_EQ(0u, pRecord->ReSendCount);
  EXPECT_STREQ(kOtherSender, pRecord->strPluginId.c_str());
  EXPECT_STREQ("it's", pRecord->strProduct.c_str());
  EXPECT_STREQ("co'mb", pRecord->strCombo.c_str());
  EXPECT_STREQ("it's <data>", pRecord->strData.c_str());
  EXPECT_EQ(Data().GetLogCacheFile(kOtherSender), pRecord->pLogCacheFile);
  EXPECT_EQ(1u, Peer().QueueCount(3));
}

TEST_F(LoadTest, TellsWhatItFoundAndHowTheQueuesStand) {
  Open(kMemoryOnlyConfig);
  for (const int iPriv : {0, 2, 2, 3}) {
    static_cast<void>(Data().AddDataAction(0, 100 + Peer().MapSize(), iPriv, 1, 1, kSenderText, "p", "c", "text"));
  }
  StoreRows(3);
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[3]"},
                     {kMainChannel, 2,
                      "qmlogcache CLogCacheData::LoadExecData LowQueueData[1] NormalQueueData[3] HighQueueData[2] "
                      "RealQueueData[1]"}}));
}

TEST_F(LoadTest, AnEmptyDirectoryIsASuccess) {
  Open();
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[0]"},
                     {kMainChannel, 2,
                      "qmlogcache CLogCacheData::LoadExecData LowQueueData[0] NormalQueueData[0] HighQueueData[0] "
                      "RealQueueData[0]"}}));
}

TEST_F(LoadTest, AFailedScanIsAWarningAndTheResultZero) {
  Open();
  std::filesystem::remove_all(CachePath());
  EXPECT_EQ(0, Data().LoadExecData());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 3,
                      "*qmlogcache CLogCacheFile::GetCacheData opendir Error m_strLogCachePath[" + CachePath() + "]"},
                     {kMainChannel, 3, "*qmlogcache CLogCacheData::LoadExecData Warn GetCacheData"}}));
  std::filesystem::create_directory(CachePath());
  StoreRow(1);
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_TRUE(Data().IsDataIdExist(1));
}

TEST_F(LoadTest, WithoutAConfiguredDirectoryItFails) {
  CLogCacheData data;
  EXPECT_EQ(0, data.LoadExecData());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3, "*qmlogcache CLogCacheFile::GetCacheData m_strLogCachePath is empty"},
                             {kMainChannel, 3, "*qmlogcache CLogCacheData::LoadExecData Warn GetCacheData"}}));
}

TEST_F(LoadTest, LoadsWithTenThousandRecordsInMemoryAndNotWithOneMore) {
  Open();
  StoreRow(20000);
  Peer().SetDataFlowFlag(2);
  for (unsigned long long u64DataId = 1; u64DataId <= 10001; ++u64DataId) {
    ASSERT_EQ(0, Add(u64DataId));
  }
  CLogCapture::Reset();
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheData::LoadExecData m_mapLogExecData size[10001]"}}));
  EXPECT_FALSE(Data().IsDataIdExist(20000));
  EXPECT_EQ(0, Data().DeleteDataAction(1));
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_TRUE(Data().IsDataIdExist(20000));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, kScanOfOne));
}

TEST_F(LoadTest, FilesNoMoreThanTheLocalLimitInOnePass) {
  Open("localdatacountlimit = 3\n");
  StoreRows(5);
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ((DataIds{1, 2, 3}), Peer().Ids());
  EXPECT_EQ(0, Data().DeleteDataAction(1));
  EXPECT_EQ(0, Data().DeleteDataAction(3));
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ((DataIds{2, 4, 5}), Peer().Ids());
}

TEST_F(LoadTest, ALocalLimitOfZeroLoadsNothing) {
  Open("localdatacountlimit = 0\n");
  StoreRows(2);
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_EQ((DataIds{1, 2}), Rows());
}

TEST_F(LoadTest, ARecordThatIsNotFiledIsLoggedAndTheNextOneTried) {
  Open("datacountlimit = 0\n");
  StoreRow(0xa1);
  StoreRow(0xa2);
  StoreRow(0xa3);
  EXPECT_EQ(1, Data().LoadExecData());
  const std::string strFields =
      "] iPriv[1] iMsgType[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[comb] "
      "strFileName[" +
      CacheFile() + "]";
  const std::string strWarn = "*qmlogcache CLogCacheData::LoadExecData Warn AddDataAction iRet[a0010014] u64DataId[";
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[3]"},
                     {kMainChannel, 3, strWarn + "a2" + strFields},
                     {kMainChannel, 3, strWarn + "a3" + strFields},
                     {kMainChannel, 2,
                      "qmlogcache CLogCacheData::LoadExecData LowQueueData[0] NormalQueueData[1] HighQueueData[0] "
                      "RealQueueData[0]"}}));
  EXPECT_EQ((DataIds{0xa1}), Peer().Ids());
  EXPECT_EQ((DataIds{0xa1, 0xa2, 0xa3}), Rows());
}

TEST_F(LoadTest, ARecordInMemoryIsNeitherDoubledNorLogged) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ(1u, Take());  // in flight
  const _LogExecData* pFirst = Peer().Find(1);
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ(pFirst, Peer().Find(1));
  EXPECT_NE(0u, Peer().Find(1)->StartTime);
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids());
  EXPECT_EQ(1u, Peer().QueueCount(1));
  EXPECT_EQ(2u, CLogCapture::Lines().size());  // the two lines of every load
}

TEST_F(LoadTest, LoadedRecordsAreNotWrittenAgainAndTheirRowGoesWithThem) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2));
  Open();
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids(2));
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(0, Data().ReAddDataAction(1));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ(2u, Inserts());  // the two intakes
  EXPECT_EQ(0, Data().DeleteDataAction(1));
  EXPECT_EQ((DataIds{2}), Rows());
}

TEST_F(LoadTest, MemoryOnlyFlowKeepsTheRowAndBringsTheRecordBack) {
  Open(kMemoryOnlyConfig);
  StoreRow(1);
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ(0, Status(1));
  EXPECT_EQ(0, Data().DeleteDataAction(1));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_TRUE(Data().IsDataIdExist(1));
}

TEST_F(LoadTest, AForeignFileDoesNotKeepOthersFromLoading) {
  Open();
  std::ofstream(CachePath() + "foreign.db") << std::string(8192, 'x');
  std::ofstream(CachePath() + "zzz.db") << std::string(8192, 'x');
  StoreRow(1);
  StoreRow(2, kOtherSender);
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids());
  EXPECT_TRUE(Exists(CachePath() + "foreign.db"));
}

TEST_F(LoadTest, ARecordSettledBetweenScanAndFilingStaysSettled) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ(1u, Take());
  EXPECT_EQ(2u, Take());
  AfterScan([this] { EXPECT_EQ(0, Data().DeleteDataAction(1)); });
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ((DataIds{2}), Peer().Ids());
  EXPECT_EQ(0u, Peer().QueueCount(1));
  EXPECT_EQ((DataIds{2}), Rows());
}

TEST_F(LoadTest, ALoadThatEndsInsideAnotherDoesNotBringASettledRecordBack) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(1u, Take());
  AfterScan([this] {
    EXPECT_EQ(0, Data().DeleteDataAction(1));
    EXPECT_EQ(1, Data().LoadExecData());
  });
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_TRUE(Rows().empty());
}

TEST_F(LoadTest, ARowThatIsThereAfterTheLoadComesBackWithTheNext) {
  Open();
  EXPECT_EQ(0, Add(1));
  AfterScan([this] {
    EXPECT_EQ(0, Data().DeleteDataAction(1));
    StoreRow(1);
  });
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ((DataIds{1}), Peer().Ids(2));
}

TEST_F(LoadTest, ARecordThatIsFiledWhileALoadRunsIsKept) {
  Open();
  StoreRow(1);
  AfterScan([this] { EXPECT_EQ(0, Add(2)); });
  EXPECT_EQ(1, Data().LoadExecData());
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids(2));
  EXPECT_EQ((DataIds{1, 2}), Rows());
  EXPECT_EQ(2u, Peer().QueueCount(1));
}

}  // namespace
