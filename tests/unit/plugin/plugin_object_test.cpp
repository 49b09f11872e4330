#include "plugin/plugin_object.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/allocation_faults.h"
#include "tests/support/manager_fixture.h"

namespace {

const int kStatusAtLoad = CLogCachePluginObj::GetStatus();

// The entries as the host calls them; nothing is open at first.
class PluginObjectTest : public ComponentTest {
 protected:
  PluginObjectTest() {
    g_hLog = nullptr;
    g_hLogError = nullptr;
    g_iPluginStatus = 0;
    CLogCapture::Reset();
  }
  ~PluginObjectTest() override {
    if (CLogCacheMgrPeer::Current() != nullptr) {
      CLogCachePluginObj::Stop();
      CLogCachePluginObj::Uninitialize();
    }
  }

  // Initialised, with a context, and with an empty log.
  void Initialize() {
    ASSERT_EQ(0, CLogCachePluginObj::Initialize(&m_iParameter));
    ASSERT_EQ(0, CLogCachePluginObj::SetCtx(static_cast<IComponentContext*>(&m_context)));
    CLogCapture::Reset();
  }

  int m_iParameter = 0;
  CFakeContext m_context;
};

TEST_F(PluginObjectTest, StatusIsZeroWhenLoaded) {
  EXPECT_EQ(0, kStatusAtLoad);
}

TEST_F(PluginObjectTest, InitializeWithNullOpensBothChannelsAndIsRefused) {
  EXPECT_EQ(-1, CLogCachePluginObj::Initialize(nullptr));
  EXPECT_EQ(0, CLogCachePluginObj::GetStatus());
  EXPECT_EQ(1, CLogCapture::OpenCount(kMainChannel));
  EXPECT_EQ(1, CLogCapture::OpenCount(kErrorChannel));
  EXPECT_NE(nullptr, g_hLog.load());
  EXPECT_NE(nullptr, g_hLogError.load());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 4, "**qmlogcache CLogCachePluginObj::Initialize Error pInitParam is NULL"}}));
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

TEST_F(PluginObjectTest, InitializeWithNullLeavesALaterStatusAlone) {
  Initialize();
  EXPECT_EQ(-1, CLogCachePluginObj::Initialize(nullptr));
  EXPECT_EQ(1, CLogCachePluginObj::GetStatus());
}

TEST_F(PluginObjectTest, InitializeMakesTheManagerAndLogsItsEnd) {
  EXPECT_EQ(0, CLogCachePluginObj::Initialize(&m_iParameter));
  EXPECT_EQ(1, CLogCachePluginObj::GetStatus());
  EXPECT_NE(nullptr, CLogCacheMgrPeer::Current());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::Initialize Begin"},
                             {kMainChannel, 2, "qmlogcache CLogCacheMgr::Init Begin"},
                             ConfigLine(2),
                             {kMainChannel, 2, "qmlogcache CLogCacheMgr::Init End"},
                             {kMainChannel, 6, "qmlogcache CLogCachePluginObj::Initialize End Init OK"}}));
}

TEST_F(PluginObjectTest, InitializeOfAManagerThatFailsIsOnlyLogged) {
  CStorageFaults::FailModulePath(EACCES);
  EXPECT_EQ(0, CLogCachePluginObj::Initialize(&m_iParameter));
  EXPECT_EQ(1, CLogCachePluginObj::GetStatus());
  EXPECT_NE(nullptr, CLogCacheMgrPeer::Current());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::Initialize Begin"},
                     {kMainChannel, 2, "qmlogcache CLogCacheMgr::Init Begin"},
                     {kMainChannel, 4, "**qmlogcache CLogCacheMon::InitLogCacheMon Error GetModuleFilePath Error[13]"},
                     {kMainChannel, 4, "**qmlogcache CLogCacheData::InitCacheData Error InitLogCacheMon"},
                     {kMainChannel, 3, "*qmlogcache CLogCacheMgr::Init Error InitCacheData Error"},
                     {kMainChannel, 4, "**qmlogcache CLogCachePluginObj::Initialize Error Init Error"}}));
}

TEST_F(PluginObjectTest, InitializeWithoutMemoryForTheManagerIsOnlyLogged) {
  {
    const CAllocationFault fault;
    EXPECT_EQ(0, CLogCachePluginObj::Initialize(&m_iParameter));
  }
  EXPECT_EQ(1, CLogCachePluginObj::GetStatus());
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::Initialize Begin"},
                     {kMainChannel, 4, "**qmlogcache CLogCachePluginObj::Initialize Error pLogCacheMgr is NULL"}}));
}

TEST_F(PluginObjectTest, ASecondInitializeOpensTheChannelsAgainAndClosesNone) {
  Initialize();
  CLogCapture::Reset();
  EXPECT_EQ(0, CLogCachePluginObj::Initialize(&m_iParameter));
  EXPECT_EQ(1, CLogCapture::OpenCount(kMainChannel));
  EXPECT_EQ(1, CLogCapture::OpenCount(kErrorChannel));
}

TEST_F(PluginObjectTest, UninitializeDestroysTheManagerAndClosesTheChannels) {
  CLogCachePluginObj::Initialize(&m_iParameter);
  CLogCapture::Reset();
  EXPECT_EQ(0, CLogCachePluginObj::Uninitialize());
  EXPECT_EQ(4, CLogCachePluginObj::GetStatus());
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
  EXPECT_EQ(-1, CLogCapture::OpenCount(kMainChannel));
  EXPECT_EQ(-1, CLogCapture::OpenCount(kErrorChannel));
  EXPECT_EQ(nullptr, g_hLog.load());
  EXPECT_EQ(nullptr, g_hLogError.load());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::Uninitialize Begin"},
                             {kMainChannel, 6, "qmlogcache CLogCachePluginObj::Uninitialize End"}}));
}

TEST_F(PluginObjectTest, UninitializeBeforeInitializeSetsTheStatusAndClosesNothing) {
  EXPECT_EQ(0, CLogCachePluginObj::Uninitialize());
  EXPECT_EQ(4, CLogCachePluginObj::GetStatus());
  EXPECT_EQ(0, CLogCapture::OpenCount(kMainChannel));
}

TEST_F(PluginObjectTest, StartWithoutAContextIsLoggedAndReportedAsSuccess) {
  CLogCachePluginObj::Initialize(&m_iParameter);
  CLogCapture::Reset();
  EXPECT_EQ(0, CLogCachePluginObj::Start());
  EXPECT_EQ(2, CLogCachePluginObj::GetStatus());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::Start Begin 202412231723"},
                             {kMainChannel, 2, "qmlogcache CLogCacheMgr::Start Begin"},
                             {kMainChannel, 4, "**qmlogcache CLogCacheMgr::Start Error m_pCompCtx is NULL"},
                             {kMainChannel, 4, "**qmlogcache CLogCachePluginObj::Start Error Start Error"}}));
}

TEST_F(PluginObjectTest, StartWithoutMemoryForTheManagerIsOnlyLogged) {
  CLogCachePluginObj::Initialize(nullptr);
  CLogCapture::Reset();
  {
    const CAllocationFault fault;
    EXPECT_EQ(0, CLogCachePluginObj::Start());
  }
  EXPECT_EQ(2, CLogCachePluginObj::GetStatus());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::Start Begin 202412231723"},
                             {kMainChannel, 4, "**qmlogcache CLogCachePluginObj::Start Error pLogMgr is NULL"}}));
}

TEST_F(PluginObjectTest, StartAndStopLogTheirEnds) {
  Initialize();
  EXPECT_EQ(0, CLogCachePluginObj::Start());
  EXPECT_EQ(2, CLogCachePluginObj::GetStatus());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6, "qmlogcache CLogCachePluginObj::Start Begin 202412231723"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6, "qmlogcache CLogCachePluginObj::Start End Start OK"));

  EXPECT_EQ(0, CLogCachePluginObj::Stop());
  EXPECT_EQ(3, CLogCachePluginObj::GetStatus());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6, "qmlogcache CLogCachePluginObj::Stop Begin"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6, "qmlogcache CLogCachePluginObj::Stop End Stop OK"));
}

TEST_F(PluginObjectTest, StopWithoutMemoryForTheManagerIsOnlyLogged) {
  CLogCachePluginObj::Initialize(nullptr);
  CLogCapture::Reset();
  {
    const CAllocationFault fault;
    EXPECT_EQ(0, CLogCachePluginObj::Stop());
  }
  EXPECT_EQ(3, CLogCachePluginObj::GetStatus());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::Stop Begin"},
                             {kMainChannel, 4, "**qmlogcache CLogCachePluginObj::Stop Error pLogMgr is NULL"}}));
}

TEST_F(PluginObjectTest, SetCtxHandsTheContextToTheManager) {
  CLogCachePluginObj::Initialize(&m_iParameter);
  CLogCapture::Reset();
  EXPECT_EQ(0, CLogCachePluginObj::SetCtx(reinterpret_cast<void*>(0x1234abcd)));
  EXPECT_EQ(reinterpret_cast<IComponentContext*>(0x1234abcd), CLogCacheMgrPeer(*CLogCacheMgr::Instance()).CompCtx());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::SetCtx Begin pData[0x1234abcd]"},
                             {kMainChannel, 6, "qmlogcache CLogCacheMgr::SetCtx m_pCompCtx[0x1234abcd]"},
                             {kMainChannel, 6, "qmlogcache CLogCachePluginObj::SetCtx End pData[0x1234abcd]"}}));
  CLogCacheMgr::Instance()->SetCtx(nullptr);
}

TEST_F(PluginObjectTest, SetCtxWithNullIsRefusedAndKeepsTheContext) {
  Initialize();
  EXPECT_EQ(0, CLogCachePluginObj::SetCtx(nullptr));
  EXPECT_EQ(&m_context, CLogCacheMgrPeer(*CLogCacheMgr::Instance()).CompCtx());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 4, "**qmlogcache CLogCachePluginObj::SetCtx Error pData is NULL"}}));
}

TEST_F(PluginObjectTest, SetCtxWithoutMemoryForTheManagerIsOnlyLogged) {
  CLogCachePluginObj::Initialize(nullptr);
  CLogCapture::Reset();
  {
    const CAllocationFault fault;
    EXPECT_EQ(0, CLogCachePluginObj::SetCtx(reinterpret_cast<void*>(0x10)));
  }
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCachePluginObj::SetCtx Begin pData[0x10]"},
                             {kMainChannel, 4, "**qmlogcache CLogCachePluginObj::SetCtx Error pLogMgr is NULL"}}));
}

TEST_F(PluginObjectTest, GetCtxGivesZeroWhateverContextWasSet) {
  int iSeven = 7;
  EXPECT_EQ(0, CLogCachePluginObj::GetCtx(nullptr));
  Initialize();
  EXPECT_EQ(0, CLogCachePluginObj::GetCtx(&iSeven));
  EXPECT_EQ(7, iSeven);
}

TEST_F(PluginObjectTest, InfoTellsNullFromNonNullAndWritesNothing) {
  int iSeven = 7;
  EXPECT_EQ(0, CLogCachePluginObj::Info(&iSeven));
  EXPECT_EQ(7, iSeven);
  EXPECT_EQ(-1, CLogCachePluginObj::Info(nullptr));
}

TEST_F(PluginObjectTest, TheSameProcessCanGoThroughItsLifeAgainAndAgain) {
  for (int i = 0; i < 3; ++i) {
    Initialize();
    EXPECT_EQ(0, CLogCachePluginObj::Start());
    EXPECT_TRUE(LoggedOnce(kMainChannel, 6, "qmlogcache CLogCachePluginObj::Start End Start OK"));
    EXPECT_EQ(0, CLogCachePluginObj::Stop());
    EXPECT_TRUE(LoggedOnce(kMainChannel, 6, "qmlogcache CLogCachePluginObj::Stop End Stop OK"));
    EXPECT_EQ(0, CLogCachePluginObj::Uninitialize());
    EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
  }
  std::vector<std::string> vecCalls = m_context.Calls();
  std::erase(vecCalls, "AgentGetConnect");  // the work thread's, which lives on for a moment
  EXPECT_EQ(3u * 42u, vecCalls.size());     // Initialize, 20 Receive, 20 UnReceive, Uninitialize each time
}

}  // namespace
