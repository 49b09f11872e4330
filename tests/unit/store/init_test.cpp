// Configuration, and the file objects of the senders.
#include <cerrno>
#include <filesystem>
#include <new>
#include <string>

#include "tests/support/allocation_faults.h"
#include "tests/unit/store/store_fixture.h"

namespace {

using InitTest = StoreTest;

TEST_F(InitTest, TakesWhatIsConfigured) {
  Open(
      "dataflowflag = 1\ndatacountlimit = 20\nlocaldatacountlimit = 30\ndatacoverflag = 4\n"
      "logcachepath = ../data/other/\n");
  EXPECT_EQ(1u, Peer().DataFlowFlag());
  EXPECT_EQ(20u, Peer().DataCountLimit());
  EXPECT_EQ(30u, Peer().LocalDataCountLimit());
  EXPECT_EQ(4u, Peer().DataCoverFlag());
  EXPECT_EQ(m_directory.Path("bin/../data/other/"), Peer().LogCachePath());
  EXPECT_TRUE(std::filesystem::is_directory(m_directory.Path("data/other")));
  EXPECT_STREQ(m_directory.Path("bin/../data/other/s.db").c_str(),
               Data().GetLogCacheFile("s")->GetLogCacheFile().c_str());
}

TEST_F(InitTest, WithoutAFileTheDefaultsHold) {
  std::filesystem::remove(m_directory.Path("etc/qmlogcache/qmlogcache.conf"));
  CLogCacheData data;
  EXPECT_TRUE(data.InitCacheData());
  EXPECT_TRUE(LoggedExactly({ConfigLine(0)}));
  CLogCacheDataPeer peer(data);
  EXPECT_EQ(0u, peer.DataFlowFlag());
  EXPECT_EQ(500000u, peer.DataCountLimit());
  EXPECT_EQ(100000u, peer.LocalDataCountLimit());
  EXPECT_EQ(0u, peer.DataCoverFlag());
  EXPECT_EQ(CachePath(), peer.LogCachePath());
}

TEST_F(InitTest, FailsWhenTheProgramsDirectoryIsUnknownAndKeepsItsValues) {
  WriteConfig("dataflowflag = 1\ndatacountlimit = 20\n");
  CStorageFaults::FailModulePath(ENOENT);
  CLogCacheData data;
  EXPECT_FALSE(data.InitCacheData());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 4, "**qmlogcache CLogCacheMon::InitLogCacheMon Error GetModuleFilePath Error[2]"},
                     {kMainChannel, 4, "**qmlogcache CLogCacheData::InitCacheData Error InitLogCacheMon"}}));
  CLogCacheDataPeer peer(data);
  EXPECT_EQ(0u, peer.DataFlowFlag());
  EXPECT_EQ(500000u, peer.DataCountLimit());
  EXPECT_EQ("", peer.LogCachePath());
}

TEST_F(InitTest, WithoutMemoryItFailsWithALineAndKeepsItsValues) {
  WriteConfig("dataflowflag = 1\ndatacountlimit = 20\n");
  CLogCapture::SetHook([this](const LogLine& line) {
    if (line.strText == ConfigLine(1, 20).strText) {
      throw std::bad_alloc();
    }
  });
  CLogCacheData data;
  bool bLoaded = true;
  EXPECT_NO_THROW(bLoaded = data.InitCacheData());
  EXPECT_FALSE(bLoaded);
  EXPECT_TRUE(LoggedExactly(
      {ConfigLine(1, 20), {kMainChannel, 4, "**qmlogcache CLogCacheData::InitCacheData Error InitLogCacheMon"}}));
  CLogCacheDataPeer peer(data);
  EXPECT_EQ(0u, peer.DataFlowFlag());
  EXPECT_EQ(500000u, peer.DataCountLimit());
  CLogCapture::SetHook(nullptr);
  EXPECT_TRUE(data.InitCacheData());
  EXPECT_EQ(1u, peer.DataFlowFlag());
  EXPECT_EQ(20u, peer.DataCountLimit());
}

TEST_F(InitTest, ASettingIsTakenOrTheInitFailsWhateverTextFindsNoMemory) {
  constexpr unsigned int kMoreThanEnough = 100;
  WriteConfig("logcachepath = ../data/elsewhere/\n");
  const std::string strConfigured = m_directory.Path("bin/../data/elsewhere/");
  unsigned int uRefused = 0;
  bool bFailed = true;
  for (unsigned int uNth = 1; bFailed; ++uNth) {
    ASSERT_LT(uNth, kMoreThanEnough);
    CLogCacheData data;
    bool bLoaded = false;
    {
      const CNthStringFault fault(uNth);
      EXPECT_NO_THROW(bLoaded = data.InitCacheData()) << uNth;
      bFailed = fault.HasFailed();
    }
    uRefused += bLoaded ? 0 : 1;
    EXPECT_EQ(bLoaded ? strConfigured : "", CLogCacheDataPeer(data).LogCachePath()) << uNth;
  }
  EXPECT_GT(uRefused, 0u);
}

TEST_F(InitTest, TwoSendersHaveTwoFilesAndASecondRecordUsesTheFirst) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2, kOtherSender));
  EXPECT_EQ(2u, Peer().FileCount());
  EXPECT_EQ(0, Add(3));
  EXPECT_EQ(2u, Peer().FileCount());
  EXPECT_EQ(Peer().Find(1)->pLogCacheFile, Peer().Find(3)->pLogCacheFile);
  EXPECT_NE(Peer().Find(1)->pLogCacheFile, Peer().Find(2)->pLogCacheFile);
  EXPECT_EQ(Peer().Find(2)->pLogCacheFile, Data().GetLogCacheFile(kOtherSender));
  EXPECT_EQ((DataIds{1, 3}), Rows());
  EXPECT_EQ((DataIds{2}), Rows(kOtherSender));
}

TEST_F(InitTest, TheStatusLineCountsTheFileObjects) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2, kOtherSender));
  EXPECT_EQ(0, Add(3));
  EXPECT_STREQ(
      "mapLogCacheFile[2] mapLogExecData[3] LowQueueData[0] NormalQueueData[3] HighQueueData[0] RealQueueData[0]",
      Data().GetDataStat().c_str());
}

TEST_F(InitTest, AFileObjectTouchesNoDisk) {
  Open();
  const CLogCacheFile* pFile = Data().GetLogCacheFile(kSenderText);
  ASSERT_NE(nullptr, pFile);
  EXPECT_STREQ(CacheFile().c_str(), pFile->GetLogCacheFile().c_str());
  EXPECT_TRUE(std::filesystem::is_empty(CachePath()));
}

TEST_F(InitTest, WithoutMemoryForAFileObjectTheRecordIsRefusedAndNoneIsKept) {
  Open();
  {
    const CAllocationFault fault;
    EXPECT_EQ(nullptr, Data().GetLogCacheFile(kSenderText));
    EXPECT_EQ(static_cast<int>(0xE0010003), Add(1));
  }
  EXPECT_EQ(0u, Peer().FileCount());
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_TRUE(std::filesystem::is_empty(CachePath()));
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ((DataIds{1}), Rows());
}

TEST_F(InitTest, AFileThatCannotBeMadeFailsEachWriteAndRefusesNoRecord) {
  Open("logcachepath = ../missing/deep/\n");
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ(1u, Peer().FileCount());
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids(1));
  EXPECT_EQ(2u, Peer().QueueCount(1));
  for (const char* pszId : {"1", "2"}) {
    EXPECT_TRUE(LoggedOnce(
        kMainChannel, 3,
        std::string("*qmlogcache InsertExecData Error iRet[a0010021] StartTime[0] ReSendCount[0] u64DataId[") + pszId +
            "] iPriv[1] iMsgType[1] iDataSaveStatus[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] "
            "strProduct[prod] strCombo[comb]"));
  }
  EXPECT_FALSE(Exists(m_directory.Path("missing")));
}

TEST_F(InitTest, CleaningDestroysTheObjectsAndLeavesTheFiles) {
  Open();
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2, kOtherSender));
  Data().CleanExecDataMap();
  Data().CleanLogCacheFile();
  EXPECT_EQ(0u, Peer().FileCount());
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_EQ((DataIds{2}), Rows(kOtherSender));
  EXPECT_EQ(0, Add(3));
  EXPECT_EQ((DataIds{1, 3}), Rows());
}

TEST_F(InitTest, DestructionWritesNothing) {
  Open("dataflowflag = 1\n");
  EXPECT_EQ(0, Add(1));
  m_pData.reset();
  EXPECT_TRUE(std::filesystem::is_empty(CachePath()));
}

}  // namespace
