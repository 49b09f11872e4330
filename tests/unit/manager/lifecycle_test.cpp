// Start, stop and the manager's own life.
#include <pthread.h>

#include <cerrno>
#include <set>
#include <string>

#include "message/receive.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/manager_fixture.h"

namespace {

const std::vector<uint32_t> kTypes = {10100, 10101, 10102, 10103, 10110, 10111, 10112, 10113, 10200, 10201,
                                      10202, 10203, 10210, 10211, 10212, 10213, 10300, 20300, 20003, 1000};

std::vector<std::string> CallsFor(const char* pszName) {
  std::vector<std::string> vecCalls;
  for (const uint32_t uType : kTypes) {
    vecCalls.push_back(std::string(pszName) + " " + std::to_string(uType));
  }
  return vecCalls;
}

std::string NumberText(unsigned long ulNumber) {
  return std::to_string(ulNumber);
}

// New threads of the process cannot be created while it lives: their default stack is larger than the address space.
class CThreadFault {
 public:
  CThreadFault() {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_getattr_default_np(&attr);
    pthread_attr_getstacksize(&attr, &m_uBefore);
    pthread_attr_setstacksize(&attr, size_t{1} << 47);
    pthread_setattr_default_np(&attr);
    pthread_attr_destroy(&attr);
  }
  ~CThreadFault() {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_getattr_default_np(&attr);
    pthread_attr_setstacksize(&attr, m_uBefore);
    pthread_setattr_default_np(&attr);
    pthread_attr_destroy(&attr);
  }
  CThreadFault(const CThreadFault&) = delete;
  CThreadFault& operator=(const CThreadFault&) = delete;

 private:
  size_t m_uBefore = 0;
};

using ManagerLifeTest = ComponentTest;
using LifecycleTest = ManagerTest;

TEST_F(ManagerLifeTest, TheFirstInstanceMakesTheOnlyManager) {
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
  CLogCacheMgr* pManager = CLogCacheMgr::Instance();
  ASSERT_NE(nullptr, pManager);
  EXPECT_EQ(pManager, CLogCacheMgr::Instance());
  CLogCacheMgr::Close();
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

TEST_F(ManagerLifeTest, WithoutMemoryThereIsNoInstanceAndTheNextTryMakesOne) {
  {
    const CAllocationFault fault;
    EXPECT_EQ(nullptr, CLogCacheMgr::Instance());
  }
  EXPECT_NE(nullptr, CLogCacheMgr::Instance());
}

TEST_F(ManagerLifeTest, CloseWithoutAManagerDoesNothing) {
  CLogCacheMgr::Close();
  CLogCacheMgr::Close();
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(ManagerLifeTest, ANewManagerHasItsInitialValues) {
  CLogCacheMgrPeer peer(*CLogCacheMgr::Instance());
  EXPECT_EQ(nullptr, peer.CompCtx());
  EXPECT_EQ(0, peer.WorkThreadStatus());
  EXPECT_EQ(0, peer.TimerThreadStatus());
  EXPECT_EQ(0u, peer.WorkThreadId());
  EXPECT_EQ(0u, peer.TimerThreadId());
  EXPECT_EQ(0x6553f100u, peer.StartTime());
  EXPECT_EQ(0u, peer.SequenceId());
  EXPECT_FALSE(peer.Connected());
  EXPECT_NE(nullptr, peer.Event());
  EXPECT_EQ(0, peer.SendRefCount());
  EXPECT_EQ(0, peer.SendSingle());
  EXPECT_EQ(0, peer.SaveCacheFlag());
  EXPECT_EQ(0, peer.SendErrorCount());
}

TEST_F(ManagerLifeTest, AManagerWithoutEventsLivesAndDies) {
  CPlatformFaults::RefuseEvents(true);
  CLogCacheMgr* pManager = CLogCacheMgr::Instance();
  ASSERT_NE(nullptr, pManager);
  EXPECT_EQ(nullptr, CLogCacheMgrPeer(*pManager).Event());
  ASSERT_TRUE(pManager->Init());
  pManager->SetSendSingleFlag(1);
  EXPECT_EQ(0, pManager->AddExecData(10101, 1, 1, 1, kSenderText, "", "", "x"));
  CLogCacheMgr::Close();
}

TEST_F(LifecycleTest, InitLogsItsBeginAndEnd) {
  EXPECT_TRUE(m_manager.Init());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheMgr::Init Begin"},
                             ConfigLine(2),
                             {kMainChannel, 2, "qmlogcache CLogCacheMgr::Init End"}}));
}

TEST_F(ManagerLifeTest, InitFailsWhenTheProgramsDirectoryIsUnknown) {
  CStorageFaults::FailModulePath(ENOENT);
  CLogCacheMgr& manager = *CLogCacheMgr::Instance();
  EXPECT_FALSE(manager.Init());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheMgr::Init Begin"},
                     {kMainChannel, 4, "**qmlogcache CLogCacheMon::InitLogCacheMon Error GetModuleFilePath Error[2]"},
                     {kMainChannel, 4, "**qmlogcache CLogCacheData::InitCacheData Error InitLogCacheMon"},
                     {kMainChannel, 3, "*qmlogcache CLogCacheMgr::Init Error InitCacheData Error"}}));
}

TEST_F(LifecycleTest, SetCtxLogsThePointer) {
  m_manager.SetCtx(reinterpret_cast<void*>(0x77));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCacheMgr::SetCtx m_pCompCtx[0x77]"}}));
  m_manager.SetCtx(nullptr);
}

TEST_F(LifecycleTest, SaveCacheToDbLogsItsResult) {
  EXPECT_EQ(1, m_manager.SaveCacheToDb());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 6, "qmlogcache CLogCacheMgr::SaveCacheToDb Begin"},
                             {kMainChannel, 6, "qmlogcache CLogCacheMgr::SaveCacheToDb End bStatus[1]"}}));
}

TEST_F(LifecycleTest, StartWithoutAContextRegistersNothingAndMakesNoThreads) {
  m_manager.SetCtx(nullptr);
  CLogCapture::Reset();
  EXPECT_FALSE(m_manager.Start());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheMgr::Start Begin"},
                             {kMainChannel, 4, "**qmlogcache CLogCacheMgr::Start Error m_pCompCtx is NULL"}}));
  EXPECT_TRUE(m_context.Calls().empty());
  EXPECT_EQ(0u, m_peer.WorkThreadId());
  EXPECT_EQ(0u, m_peer.TimerThreadId());
}

TEST_F(LifecycleTest, StartNamesTheComponentAndRegistersTwentyTypesInOrder) {
  EXPECT_TRUE(m_manager.Start());
  EXPECT_EQ((std::vector<std::string>{"5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358"}), m_context.InitializedWith());
  std::vector<std::string> vecExpected = CallsFor("Receive");
  vecExpected.insert(vecExpected.begin(), "Initialize");
  std::vector<std::string> vecCalls = m_context.Calls();
  ASSERT_LE(vecExpected.size(), vecCalls.size());
  vecCalls.resize(vecExpected.size());
  EXPECT_EQ(vecExpected, vecCalls);
  for (const Registration& registration : m_context.Registrations()) {
    EXPECT_EQ(&CLogCacheReceive::m_gReceive, registration.pReceiver);
    EXPECT_EQ(static_cast<IComponentContext*>(&m_context), registration.pContext);
  }
}

TEST_F(LifecycleTest, StartLogsTheTypesAndTheThreads) {
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::Start Begin"));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 2,
      "qmlogcache CLogCacheMgr::Start LOGCACHE_MSG_SYNC_SERVER_BASE[2774] LOGCACHE_MSG_SYNC_PLUGIN_BASE[27d8] "
      "LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA[283c] LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA[4f4c] "
      "AGENT_MSG_BROADCAST_CONNECT[3e8]"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6,
                         "qmlogcache CLogCacheMgr::Start pthread_create WorkThread iThreadRet[0] m_hThreadWorkId[" +
                             NumberText(m_peer.WorkThreadId()) + "]"));
  EXPECT_TRUE(
      LoggedOnce(kMainChannel, 6,
                 "qmlogcache CLogCacheMgr::Start pthread_create TimerThread iThreadTimerRet[0] m_hThreadTimerId[" +
                     NumberText(m_peer.TimerThreadId()) + "]"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::Start End"));
}

TEST_F(LifecycleTest, AThreadThatCannotBeCreatedShowsOnlyInTheLog) {
  {
    const CThreadFault fault;
    EXPECT_TRUE(m_manager.Start());
  }
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6,
                         "qmlogcache CLogCacheMgr::Start pthread_create WorkThread iThreadRet[11] m_hThreadWorkId[0]"));
  EXPECT_TRUE(
      LoggedOnce(kMainChannel, 6,
                 "qmlogcache CLogCacheMgr::Start pthread_create TimerThread iThreadTimerRet[11] m_hThreadTimerId[0]"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::Start End"));
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_TRUE(CFakeClock::MicroSleeps().empty());
}

TEST_F(LifecycleTest, AFailedInitializeIsAWarning) {
  m_context.SetInitializeResult(0xE0010005);
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 3, "*qmlogcache CLogCacheMgr::Start Warn Initialize iRet[e0010005]"));
  EXPECT_EQ(20u, m_context.Registrations().size());
}

TEST_F(LifecycleTest, OneFailedRegistrationLeavesTheOthers) {
  m_context.SetReceiveResult(10112, 0xE0010007);
  EXPECT_TRUE(m_manager.Start());
  EXPECT_EQ(20u, m_context.Registrations().size());
  EXPECT_TRUE(
      LoggedOnce(kMainChannel, 3,
                 "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PUB_PRIV_HIGH iRet[e0010007]"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::Start End"));
}

TEST_F(LifecycleTest, EachFailedRegistrationNamesItsType) {
  for (const uint32_t uType : kTypes) {
    m_context.SetReceiveResult(uType, 0xE0000000 + uType);
  }
  EXPECT_TRUE(m_manager.Start());
  const std::vector<std::string> vecExpected = {
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PRIV_LOW iRet[e0002774]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL iRet[e0002775]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PRIV_HIGH iRet[e0002776]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PRIV_REAL iRet[e0002777]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PUB_PRIV_LOW iRet[e000277e]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PUB_PRIV_NORMAL iRet[e000277f]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PUB_PRIV_HIGH iRet[e0002780]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EDR_PUB_PRIV_REAL iRet[e0002781]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EPP_PRIV_LOW iRet[e00027d8]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EPP_PRIV_NORMAL iRet[e00027d9]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EPP_PRIV_HIGH iRet[e00027da]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EPP_PRIV_REAL iRet[e00027db]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EPP_PUB_PRIV_LOW iRet[e00027e2]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EPP_PUB_PRIV_NORMAL iRet[e00027e3]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EPP_PUB_PRIV_HIGH iRet[e00027e4]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_EPP_PUB_PRIV_REAL iRet[e00027e5]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA iRet[e000283c]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA iRet[e0004f4c]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT iRet[e0004e23]",
      "*qmlogcache CLogCacheMgr::Start Warn Receive AGENT_MSG_BROADCAST_CONNECT iRet[e00003e8]"};
  std::vector<std::string> vecWarnings;
  for (const LogLine& line : CLogCapture::Lines()) {
    if (line.iLevel == 3) {
      EXPECT_EQ(kMainChannel, line.strChannel);
      vecWarnings.push_back(line.strText);
    }
  }
  EXPECT_EQ(vecExpected, vecWarnings);
}

TEST_F(LifecycleTest, StopCancelsAllTwentyTypesAlsoWhenRegistrationsFailed) {
  m_context.SetReceiveResult(10100, 0xE0010007);
  m_context.SetReceiveResult(1000, 0xE0010007);
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(m_manager.Stop());
  std::vector<std::string> vecExpected = CallsFor("UnReceive");
  vecExpected.emplace_back("Uninitialize");
  std::vector<std::string> vecCalls = m_context.Calls();
  std::erase(vecCalls, "AgentGetConnect");  // the work thread's, at any time
  ASSERT_LE(vecExpected.size(), vecCalls.size());
  vecCalls.erase(vecCalls.begin(), vecCalls.end() - static_cast<std::ptrdiff_t>(vecExpected.size()));
  EXPECT_EQ(vecExpected, vecCalls);
}

TEST_F(LifecycleTest, StopWithoutStartSavesAndReturnsAtOnce) {
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheMgr::Stop Begin"},
                             {kMainChannel, 6, "qmlogcache CLogCacheMgr::SaveCacheToDb Begin"},
                             {kMainChannel, 6, "qmlogcache CLogCacheMgr::SaveCacheToDb End bStatus[1]"},
                             {kMainChannel, 2, "qmlogcache CLogCacheMgr::Stop End"}}));
  std::vector<std::string> vecExpected = CallsFor("UnReceive");
  vecExpected.emplace_back("Uninitialize");
  EXPECT_EQ(vecExpected, m_context.Calls());
  EXPECT_TRUE(CFakeClock::MicroSleeps().empty());
}

TEST_F(LifecycleTest, StopWithoutAContextIsASuccess) {
  m_manager.SetCtx(nullptr);
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_TRUE(m_context.Calls().empty());
}

TEST_F(LifecycleTest, StopSetsBothEventsSoThatWaitsEndAtOnce) {
  std::set<void*> setHandles;
  CPlatformFaults::SetEventHook([&](void* hEvent) { setHandles.insert(hEvent); });
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_EQ((std::set<void*>{m_peer.Event(), m_dataPeer.DataEvent()}), setHandles);
}

TEST_F(LifecycleTest, StopEndsBothThreads) {
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread Begin"));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread Begin"));
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_EQ(2, m_peer.WorkThreadStatus());
  EXPECT_EQ(2, m_peer.TimerThreadStatus());
  EXPECT_EQ(0u, m_peer.WorkThreadId());
  EXPECT_EQ(0u, m_peer.TimerThreadId());
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread End"));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread End"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread Begin"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread End"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread Begin"));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread End"));
  for (const unsigned int uMicros : CFakeClock::MicroSleeps()) {
    EXPECT_EQ(300000u, uMicros);
  }
}

TEST_F(LifecycleTest, StopSavesBeforeTheThreadsAreAskedToEnd) {
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread Begin"));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread Begin"));
  CLogCapture::SetHook([](const LogLine& line) {
    if (line.strText == "qmlogcache CLogCacheMgr::SaveCacheToDb End bStatus[1]") {
      EXPECT_TRUE(NotLogged("qmlogcache CLogCacheMgr::WorkThread End"));
      EXPECT_TRUE(NotLogged("qmlogcache CLogCacheMgr::TimerThread End"));
    }
  });
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6, "qmlogcache CLogCacheMgr::SaveCacheToDb End bStatus[1]"));
}

}  // namespace
