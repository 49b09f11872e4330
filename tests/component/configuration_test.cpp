// The configuration file and the module directory as the component meets them at Initialize.
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "cache_file_fixture.h"

namespace {

class ConfigurationTest : public CCacheFileTest {
 protected:
  // Level and text of every line on the main channel.
  std::vector<std::pair<int, std::string>> MainLines() {
    std::vector<std::pair<int, std::string>> vecLines;
    for (const LogLine& line : m_log.Lines("")) {
      EXPECT_EQ(line.strChannel, kMainChannel);
      vecLines.emplace_back(line.iLevel, line.strText);
    }
    return vecLines;
  }
};

using Lines = std::vector<std::pair<int, std::string>>;

TEST_F(ConfigurationTest, WithoutAFileTheDefaultsHold) {
  EXPECT_EQ(m_host.Initialize(), 0);
  EXPECT_EQ(MainLines(), (Lines{{6, "qmlogcache CLogCachePluginObj::Initialize Begin"},
                                {2, "qmlogcache CLogCacheMgr::Init Begin"},
                                {2,
                                 "qmlogcache CLogCacheMon::InitLogCacheMon dwDataFlowFlag[0] dwDataCountLimit[500000] "
                                 "dwLocalDataCountLimit[100000] dwDataCoverFlag[0] u64LogCacheSize[524288000] "
                                 "u64DiskFreeSpace[524288000] u64LogCacheTotalSize[2147483648] "
                                 "strCfgLogCachePath[../data/qmlogcache/] strLogCachePath[" +
                                     m_prefix.ModuleDirectory() + "/../data/qmlogcache/]"},
                                {2, "qmlogcache CLogCacheMgr::Init End"},
                                {6, "qmlogcache CLogCachePluginObj::Initialize End Init OK"}}));
  EXPECT_TRUE(std::filesystem::is_directory(m_prefix.Root() + "/data/qmlogcache"));
}

TEST_F(ConfigurationTest, TakesEveryKeyOfItsSectionAsItStands) {
  m_prefix.Configure(
      "LOGCACHESIZE = 0x100000\nlogcachetotalsize=010\ndiskfreesize = no number\ndataflowflag = 2\n"
      "datacountlimit = 0x10\nlocaldatacountlimit = -1\ndatacoverflag = 7\ndatacoverflag = 8\n"
      "logcachepath = ../data/elsewhere/\nunknown = 1\n[other]\ndataflowflag = 1\n[LogCache]\nLogCacheSize = 77\n");
  EXPECT_EQ(m_host.Initialize(), 0);
  ExpectLine(2,
             "qmlogcache CLogCacheMon::InitLogCacheMon dwDataFlowFlag[2] dwDataCountLimit[0] "
             "dwLocalDataCountLimit[4294967295] dwDataCoverFlag[8] u64LogCacheSize[77] u64DiskFreeSpace[0] "
             "u64LogCacheTotalSize[8] strCfgLogCachePath[../data/elsewhere/] strLogCachePath[" +
                 m_prefix.ModuleDirectory() + "/../data/elsewhere/]");
  EXPECT_EQ(NamesIn(m_prefix.Root() + "/data"), std::vector<std::string>{"elsewhere"});
}

TEST_F(ConfigurationTest, AFaultyLineStopsNoOther) {
  m_prefix.Configure("datacoverflag = 1\nno key at all\n= \ndatacountlimit = 12\n[unclosed\ndatacountlimit = 13\n");
  EXPECT_EQ(m_host.Initialize(), 0);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMon::InitLogCacheMon dwDataFlowFlag[0] dwDataCountLimit[12] "
                        "dwLocalDataCountLimit[100000] dwDataCoverFlag[1] "),
            1u);
  ExpectNoWarning();
}

TEST_F(ConfigurationTest, EachLifeReadsItsConfigurationAnew) {
  m_prefix.Configure("dataflowflag = 2\nlogcachepath = ../data/first/\n");
  BeginLife();
  FileRecord();
  m_host.EndLife();
  m_prefix.Configure("logcachepath = ../data/second/\n");
  m_clock.Advance(1);
  BeginLife();
  FileRecord();
  EXPECT_TRUE(DatabasesIn(m_prefix.Root() + "/data/first").empty());
  EXPECT_EQ(DatabasesIn(m_prefix.Root() + "/data/second"),
            std::vector<std::string>{std::string(kProducerText) + ".db"});
}

TEST_F(ConfigurationTest, CacheFilesAreReadableByTheirOwnerAlone) {
  BeginLife();
  FileRecord();
  FileRecord();
  for (const std::string& strName : NamesIn(m_prefix.CacheDirectory())) {
    struct stat info {};
    ASSERT_EQ(stat((m_prefix.CacheDirectory() + strName).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u) << strName;
  }
  EXPECT_GE(NamesIn(m_prefix.CacheDirectory()).size(), 2u);  // with the write-ahead log
}

TEST_F(ConfigurationTest, AnAbsolutePathIsJoinedToTheModuleDirectoryToo) {
  m_prefix.Configure("logcachepath = /var/cache/\n");
  std::filesystem::create_directories(m_prefix.ModuleDirectory() + "/var");
  BeginLife();
  FileRecord();
  EXPECT_EQ(LogField(m_log.WaitForText("qmlogcache CLogCacheMon::InitLogCacheMon "), "strLogCachePath"),
            m_prefix.ModuleDirectory() + "//var/cache/");
  EXPECT_EQ(DatabasesIn(m_prefix.ModuleDirectory() + "/var/cache"),
            std::vector<std::string>{std::string(kProducerText) + ".db"});
}

TEST_F(ConfigurationTest, WithoutACacheDirectoryRecordsStillTravel) {
  m_prefix.Configure("logcachepath = ../no/such/\n");  // only the last level is made
  BeginConnectedLife();
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(1));
  const std::string strFile = m_prefix.ModuleDirectory() + "/../no/such/" + kProducerText + ".db";
  ExpectLine(3, "*qmlogcache InsertExecData Error iRet[a0010021] StartTime[0] ReSendCount[0] u64DataId[" +
                    ToHex(IdOf(1)) + "] iPriv[1] iMsgType[1] iDataSaveStatus[1] strPluginId[" + kProducerText +
                    "] strProduct[] strCombo[]");
  const std::vector<LogLine> vecOpens = m_log.Lines("*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_createdb error ");
  ASSERT_GE(vecOpens.size(), 1u);
  EXPECT_EQ(vecOpens[0].strText,
            "*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_createdb error iRet[e] pHandle[(nil)] strFile[" +
                strFile + "]");
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  EXPECT_FALSE(std::filesystem::exists(m_prefix.Root() + "/no"));
}

// The working directory of a process is where a relative path leads; here it is a place of the test's own.
class CWorkingDirectory {
 public:
  explicit CWorkingDirectory(const std::string& strPath) : m_before(std::filesystem::current_path()) {
    std::filesystem::current_path(strPath);
  }
  ~CWorkingDirectory() { std::filesystem::current_path(m_before); }
  CWorkingDirectory(const CWorkingDirectory&) = delete;
  CWorkingDirectory& operator=(const CWorkingDirectory&) = delete;

 private:
  std::filesystem::path m_before;
};

class UnknownModuleTest : public ConfigurationTest {
 protected:
  UnknownModuleTest() : m_working(m_prefix.Root() + "/bin") { m_prefix.FailModulePath(EACCES); }
  CWorkingDirectory m_working;
};

TEST_F(UnknownModuleTest, IsReportedByEveryLayerAndNotToTheHost) {
  EXPECT_EQ(m_host.Initialize(), 0);
  EXPECT_EQ(m_host.GetStatus(), 1);
  EXPECT_EQ(MainLines(), (Lines{{6, "qmlogcache CLogCachePluginObj::Initialize Begin"},
                                {2, "qmlogcache CLogCacheMgr::Init Begin"},
                                {4, "**qmlogcache CLogCacheMon::InitLogCacheMon Error GetModuleFilePath Error[" +
                                        std::to_string(EACCES) + "]"},
                                {4, "**qmlogcache CLogCacheData::InitCacheData Error InitLogCacheMon"},
                                {3, "*qmlogcache CLogCacheMgr::Init Error InitCacheData Error"},
                                {4, "**qmlogcache CLogCachePluginObj::Initialize Error Init Error"}}));
  EXPECT_TRUE(NamesIn(m_prefix.Root() + "/data").empty());
}

TEST_F(UnknownModuleTest, TheLifeGoesOnAndRecordsTravel) {
  BeginConnectedLife();
  ASSERT_TRUE(m_log.WaitForLines("*qmlogcache CLogCacheData::LoadExecData Warn GetCacheData"));
  const std::vector<LogLine> vecLines = m_log.Lines("*qmlogcache CLogCacheFile::GetCacheData ");
  ASSERT_GE(vecLines.size(), 1u);
  EXPECT_EQ(vecLines[0].strText, "*qmlogcache CLogCacheFile::GetCacheData m_strLogCachePath is empty");
  EXPECT_EQ(vecLines[0].iLevel, 3);
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(1));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  EXPECT_EQ(m_host.Stop(), 0);
  EXPECT_EQ(m_host.Uninitialize(), 0);
}

TEST_F(UnknownModuleTest, ALaterLifeThatFindsItWorksWithFiles) {
  BeginConnectedLife();
  m_host.EndLife();
  m_prefix.FailModulePath(0);
  m_log.Reset();
  BeginNextLife();
  ExpectLine(6, "qmlogcache CLogCachePluginObj::Initialize End Init OK");
  FileRecord();
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1, kFirstLife + 1)}));
  ASSERT_TRUE(m_router.WaitForSent(1));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1, kFirstLife + 1), 0)));
  EXPECT_TRUE(Rows().empty());
  m_host.EndLife();
  ExpectNoWarning();
}

}  // namespace
