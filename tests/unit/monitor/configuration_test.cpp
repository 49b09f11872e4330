// Reading the configuration and resolving the cache directory.
#include <cerrno>

#include "tests/unit/monitor/monitor_fixture.h"

namespace {

class ConfigurationTest : public MonitorTest {
 protected:
  ConfigurationTest() {
    std::filesystem::create_directories(Path("bin"));
    std::filesystem::create_directories(Path("data"));
    std::filesystem::create_directories(Path("etc/qmlogcache"));
    CStorageFaults::SetModulePath(Path("bin"));
  }
  bool Init(const std::string& strConfiguration) {
    m_directory.Write("etc/qmlogcache/qmlogcache.conf", strConfiguration);
    return Init();
  }
  bool Init() { return m_mon.InitLogCacheMon(m_dwFlow, m_dwCount, m_dwLocal, m_dwCover, m_strResolved); }
  int Key(const char* pszName, const char* pszValue) {
    return CLogCacheMon::IniParserCallback(&m_mon, "logcache", pszName, pszValue, 7);
  }

  uint32_t m_dwFlow = 99;
  uint32_t m_dwCount = 99;
  uint32_t m_dwLocal = 99;
  uint32_t m_dwCover = 99;
  CPString m_strResolved = "untouched";
};

TEST_F(ConfigurationTest, WithoutAFileTheDefaultsHold) {
  EXPECT_TRUE(Init());
  EXPECT_EQ(0U, m_dwFlow);
  EXPECT_EQ(500000U, m_dwCount);
  EXPECT_EQ(100000U, m_dwLocal);
  EXPECT_EQ(0U, m_dwCover);
  EXPECT_EQ(Path("bin") + "/../data/qmlogcache/", m_strResolved.View());
  EXPECT_EQ(m_strResolved, m_peer.Path());
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogNormal,
        "qmlogcache CLogCacheMon::InitLogCacheMon dwDataFlowFlag[0] dwDataCountLimit[500000] "
        "dwLocalDataCountLimit[100000] dwDataCoverFlag[0] u64LogCacheSize[524288000] u64DiskFreeSpace[524288000] "
        "u64LogCacheTotalSize[2147483648] strCfgLogCachePath[../data/qmlogcache/] strLogCachePath[" +
            Path("bin") + "/../data/qmlogcache/]"}}));
}

TEST_F(ConfigurationTest, ANewMonitorHasCheckedNothing) {
  EXPECT_EQ(0U, m_peer.Discarded());
  EXPECT_EQ(0U, m_peer.LastCheckTime());
  EXPECT_EQ(0, m_peer.CacheSizeRet());
  EXPECT_TRUE(m_peer.Path().IsEmpty());
}

TEST_F(ConfigurationTest, EveryKeyReachesItsOwnMember) {
  EXPECT_TRUE(
      Init("[logcache]\nlogcachepath=../data/x/\nlogcachesize=1\nlogcachetotalsize=2\ndiskfreesize=3\n"
           "dataflowflag=4\ndatacountlimit=5\nlocaldatacountlimit=6\ndatacoverflag=7\nunknown=8\n"));
  EXPECT_EQ("../data/x/", m_peer.CfgPath().View());
  EXPECT_EQ(1U, m_peer.FileSize());
  EXPECT_EQ(2U, m_peer.TotalSize());
  EXPECT_EQ(3U, m_peer.DiskFreeSpace());
  EXPECT_EQ(4U, m_dwFlow);
  EXPECT_EQ(5U, m_dwCount);
  EXPECT_EQ(6U, m_dwLocal);
  EXPECT_EQ(7U, m_dwCover);
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, kLogNormal,
        "qmlogcache CLogCacheMon::InitLogCacheMon dwDataFlowFlag[4] dwDataCountLimit[5] dwLocalDataCountLimit[6] "
        "dwDataCoverFlag[7] u64LogCacheSize[1] u64DiskFreeSpace[3] u64LogCacheTotalSize[2] "
        "strCfgLogCachePath[../data/x/] strLogCachePath[" +
            Path("bin") + "/../data/x/]"}}));
}

TEST_F(ConfigurationTest, SectionAndKeysAreTakenInAnyCase) {
  EXPECT_TRUE(Init("[LogCache]\nLOGCACHESIZE=11\n[LOGCACHE]\nDataCoverFlag=1\n"));
  EXPECT_EQ(11U, m_peer.FileSize());
  EXPECT_EQ(1U, m_dwCover);
}

TEST_F(ConfigurationTest, KeysOfOtherSectionsAreIgnored) {
  EXPECT_TRUE(Init("logcachesize=1\n[other]\nlogcachesize=2\ndatacoverflag=1\n[logcache2]\nlogcachesize=3\n"));
  EXPECT_EQ(524288000U, m_peer.FileSize());
  EXPECT_EQ(0U, m_dwCover);
}

TEST_F(ConfigurationTest, SizesHaveAnyBaseAndCountsAreDecimal) {
  EXPECT_TRUE(
      Init("[logcache]\nlogcachesize=0x100000\nlogcachetotalsize=010\ndatacountlimit=0x10\n"
           "localdatacountlimit=010\n"));
  EXPECT_EQ(1048576U, m_peer.FileSize());
  EXPECT_EQ(8U, m_peer.TotalSize());
  EXPECT_EQ(0U, m_dwCount);
  EXPECT_EQ(10U, m_dwLocal);
}

TEST_F(ConfigurationTest, WhatIsNoNumberIsZeroAndANegativeCountWraps) {
  EXPECT_TRUE(Init("[logcache]\nlogcachesize=big\ndatacountlimit=many\nlocaldatacountlimit=-1\n"));
  EXPECT_EQ(0U, m_peer.FileSize());
  EXPECT_EQ(0U, m_dwCount);
  EXPECT_EQ(4294967295U, m_dwLocal);
}

TEST_F(ConfigurationTest, OfAKeyGivenTwiceTheLastCounts) {
  EXPECT_TRUE(Init("[logcache]\ndatacountlimit=1\ndatacountlimit=2\n"));
  EXPECT_EQ(2U, m_dwCount);
}

TEST_F(ConfigurationTest, AnAbsolutePathIsJoinedAllTheSame) {
  EXPECT_TRUE(Init("[logcache]\nlogcachepath=/tmp/c/\n"));
  EXPECT_EQ(Path("bin") + "//tmp/c/", m_strResolved.View());
}

TEST_F(ConfigurationTest, APathWithoutTrailingSlashIsKeptAsItIs) {
  EXPECT_TRUE(Init("[logcache]\nlogcachepath=../data/c\n"));
  EXPECT_EQ(Path("bin") + "/../data/c", m_strResolved.View());
  EXPECT_EQ(m_strResolved, m_peer.Path());
}

TEST_F(ConfigurationTest, OnlyTheLastLevelOfTheDirectoryIsMade) {
  const mode_t oldMask = umask(0);
  EXPECT_TRUE(Init());
  umask(oldMask);
  EXPECT_EQ(0755U, ModeOf(Path("data/qmlogcache")));
  EXPECT_TRUE(Init("[logcache]\nlogcachepath=../data/deep/deeper/\n"));
  EXPECT_FALSE(Exists(Path("data/deep")));
  EXPECT_TRUE(Init());
}

TEST_F(ConfigurationTest, AnUnknownProgramDirectoryIsLoggedAndChangesNothing) {
  m_directory.Write("etc/qmlogcache/qmlogcache.conf", "[logcache]\ndatacountlimit=1\n");
  CStorageFaults::FailModulePath(ENAMETOOLONG);
  EXPECT_FALSE(Init());
  EXPECT_EQ(99U, m_dwFlow);
  EXPECT_EQ(99U, m_dwCount);
  EXPECT_EQ(99U, m_dwLocal);
  EXPECT_EQ(99U, m_dwCover);
  EXPECT_EQ("untouched", m_strResolved.View());
  EXPECT_EQ(500000U, m_peer.DataCountLimit());
  EXPECT_TRUE(m_peer.Path().IsEmpty());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, kLogMissing,
                              "**qmlogcache CLogCacheMon::InitLogCacheMon Error GetModuleFilePath Error[" +
                                  std::to_string(ENAMETOOLONG) + "]"}}));
}

TEST_F(ConfigurationTest, TheHandlerAnswersEachLineWithItsNumber) {
  EXPECT_EQ(7, Key("datacountlimit", "3"));
  EXPECT_EQ(3U, m_peer.DataCountLimit());
  EXPECT_EQ(7, Key("unknown", "3"));
  EXPECT_EQ(7, Key(nullptr, "3"));
  EXPECT_EQ(7, Key("datacountlimit", nullptr));
  EXPECT_EQ(8, CLogCacheMon::IniParserCallback(&m_mon, nullptr, "datacountlimit", "4", 8));
  EXPECT_EQ(9, CLogCacheMon::IniParserCallback(nullptr, "logcache", "datacountlimit", "4", 9));
  EXPECT_EQ(3U, m_peer.DataCountLimit());
}

}  // namespace
