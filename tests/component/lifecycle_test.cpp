// The plug-in object's entries, the order of context calls, restarts, and callbacks outside a life.
#include "component_fixture.h"
#include "process_state.h"

namespace {

class LifecycleTest : public CComponentTest {};

constexpr std::array<const char*, 20> kTypesInOrder = {"10100", "10101", "10102", "10103", "10110", "10111", "10112",
                                                       "10113", "10200", "10201", "10202", "10203", "10210", "10211",
                                                       "10212", "10213", "10300", "20300", "20003", "1000"};

std::vector<std::string> AllTypes(const std::string& strCall) {
  std::vector<std::string> vecCalls;
  for (const char* pszType : kTypesInOrder) {
    vecCalls.push_back(strCall + " " + pszType);
  }
  return vecCalls;
}

std::vector<std::string> WholeLife() {
  std::vector<std::string> vecCalls = {"Initialize 5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358"};
  for (const char* pszCall : {"Receive", "UnReceive"}) {
    const std::vector<std::string> vecTypes = AllTypes(pszCall);
    vecCalls.insert(vecCalls.end(), vecTypes.begin(), vecTypes.end());
  }
  vecCalls.emplace_back("Uninitialize");
  return vecCalls;
}

TEST_F(LifecycleTest, IsLoadedAndNoMoreBeforeItsFirstInitialize) {
  EXPECT_EQ(GetLoadedPlugin().iStatusWhenLoaded, 0);
  EXPECT_EQ(GetLoadedPlugin().pfnInitializePlugin(), 0);
  GetLoadedPlugin().pfnUninitializePlugin();
}

TEST_F(LifecycleTest, MakesAnObjectForItsExactGuidAlone) {
  const PluginCreateObjectFunc pfnCreate = GetLoadedPlugin().pfnCreateObject;
  EXPECT_EQ(pfnCreate(nullptr), nullptr);
  for (const char* pszGuid : {"", "5D3B1A07", "5d3b1a07-8e24-4c91-b6f0-2a7c9e41d358",
                              "{5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358}", "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358 ",
                              "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D359", "C0E4F1B2-3A59-4D86-8B7E-91F2D6A3C4E7"}) {
    EXPECT_EQ(pfnCreate(pszGuid), nullptr) << pszGuid;
  }
  EXPECT_TRUE(m_log.Lines("").empty());
}

TEST_F(LifecycleTest, FreesAnObjectForItsOwnGuidAlone) {
  const LoadedPlugin& plugin = GetLoadedPlugin();
  void* pObject = plugin.pfnCreateObject(kComponentGuidText);
  ASSERT_NE(pObject, nullptr);
  plugin.pfnDestroyObject(nullptr, pObject);
  plugin.pfnDestroyObject("C0E4F1B2-3A59-4D86-8B7E-91F2D6A3C4E7", pObject);
  plugin.pfnDestroyObject(kComponentGuidText, nullptr);
  EXPECT_EQ(static_cast<_PluginObjFuncTable*>(pObject)->Info(pObject), 0);  // still there
  plugin.pfnDestroyObject(kComponentGuidText, pObject);
}

TEST_F(LifecycleTest, RefusesToInitializeWithoutAnArgumentButOpensItsChannels) {
  const int iBefore = m_host.GetStatus();
  EXPECT_EQ(m_host.Object().Initialize(nullptr), -1);
  EXPECT_EQ(m_host.GetStatus(), iBefore);
  EXPECT_EQ(m_log.OpenChannels(), 2);
  const std::vector<LogLine> vecLines = m_log.Lines("");
  ASSERT_EQ(vecLines.size(), 1u);
  EXPECT_EQ(vecLines[0].strText, "**qmlogcache CLogCachePluginObj::Initialize Error pInitParam is NULL");
  EXPECT_EQ(vecLines[0].iLevel, 4);
  EXPECT_EQ(m_host.Uninitialize(), 0);
  EXPECT_EQ(m_log.OpenChannels(), 0);
}

TEST_F(LifecycleTest, StatusFollowsTheLifecycle) {
  EXPECT_EQ(m_host.Initialize(), 0);
  EXPECT_EQ(m_host.GetStatus(), 1);
  EXPECT_EQ(m_host.SetCtx(&m_router), 0);
  EXPECT_EQ(m_host.GetStatus(), 1);
  EXPECT_EQ(m_host.Start(), 0);
  EXPECT_EQ(m_host.GetStatus(), 2);
  EXPECT_EQ(m_host.Stop(), 0);
  EXPECT_EQ(m_host.GetStatus(), 3);
  EXPECT_EQ(m_host.Uninitialize(), 0);
  EXPECT_EQ(m_host.GetStatus(), 4);
}

TEST_F(LifecycleTest, EntriesThatOnlyAnswer) {
  BeginLife();
  EXPECT_EQ(m_host.Object().GetCtx(&m_router), 0);
  EXPECT_EQ(m_host.Object().GetCtx(nullptr), 0);
  EXPECT_EQ(m_host.Object().Info(&m_router), 0);
  EXPECT_EQ(m_host.Object().Info(nullptr), -1);
  EXPECT_EQ(m_host.Object().SetCtx(nullptr), 0);
  EXPECT_EQ(m_log.Count("**qmlogcache CLogCachePluginObj::SetCtx Error pData is NULL"), 1u);
}

TEST_F(LifecycleTest, PrintsThroughTheLoggingLibraryThatTheHostBrings) {
  BeginConnectedLife();  // one that is not connected asks, and warns
  m_host.EndLife();
  std::vector<std::string> vecLifecycle;
  for (const LogLine& line : m_log.Lines("qmlogcache CLogCachePluginObj::")) {
    EXPECT_EQ(line.iLevel, 6);
    EXPECT_EQ(line.strChannel, kMainChannel);
    if (line.strText.find("SetCtx") == std::string::npos) {  // these print a pointer
      vecLifecycle.push_back(line.strText.substr(strlen("qmlogcache CLogCachePluginObj::")));
    }
  }
  EXPECT_EQ(vecLifecycle, (std::vector<std::string>{"Initialize Begin", "Initialize End Init OK",
                                                    "Start Begin 202412231723", "Start End Start OK", "Stop Begin",
                                                    "Stop End Stop OK", "Uninitialize Begin", "Uninitialize End"}));
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::Start LOGCACHE_MSG_SYNC_SERVER_BASE[2774] "
                        "LOGCACHE_MSG_SYNC_PLUGIN_BASE[27d8] LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA[283c] "
                        "LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA[4f4c] AGENT_MSG_BROADCAST_CONNECT[3e8]"),
            1u);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::WorkThread End"), 1u);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::TimerThread End"), 1u);
  ExpectNoWarning();
}

TEST_F(LifecycleTest, CallsTheContextInOrder) {
  BeginLife();
  m_host.EndLife();
  EXPECT_EQ(m_router.Calls(), WholeLife());
}

TEST_F(LifecycleTest, RegistersEveryTypeWithOneReceiver) {
  BeginLife();
  IMRReceiveComplete* pReceiver = m_router.ReceiverOf(LOGCACHE_MSG_SYNC_EDR_PRIV_LOW);
  ASSERT_NE(pReceiver, nullptr);
  for (const char* pszType : kTypesInOrder) {
    EXPECT_EQ(m_router.ReceiverOf(static_cast<uint32_t>(std::stoul(pszType))), pReceiver) << pszType;
  }
}

TEST_F(LifecycleTest, OneFailedRegistrationStopsNeitherTheOthersNorTheStart) {
  m_router.m_pfnOnReceive = [](uint32_t uMsgType) { return uMsgType == 20003 ? 0xabcU : 0U; };
  BeginLife();
  const std::vector<LogLine> vecWarnings = m_log.Lines("*");
  ASSERT_EQ(vecWarnings.size(), 1u);
  EXPECT_EQ(vecWarnings[0].strText,
            "*qmlogcache CLogCacheMgr::Start Warn Receive LOGCACHE_MSG_ASYNC_LOGCACHR_RESULT iRet[abc]");
  EXPECT_EQ(vecWarnings[0].iLevel, 3);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCachePluginObj::Start End Start OK"), 1u);
  FileRecord();
  m_host.EndLife();
  EXPECT_EQ(m_router.Calls(), WholeLife());
}

TEST_F(LifecycleTest, EachFailedRegistrationIsNamed) {
  m_router.m_pfnOnReceive = [](uint32_t uMsgType) { return uMsgType; };
  BeginLife();
  const std::vector<LogLine> vecWarnings = m_log.Lines("*qmlogcache CLogCacheMgr::Start Warn Receive ");
  ASSERT_EQ(vecWarnings.size(), kTypesInOrder.size());
  EXPECT_NE(vecWarnings.front().strText.find("LOGCACHE_MSG_SYNC_EDR_PRIV_LOW iRet[2774]"), std::string::npos);
  EXPECT_NE(vecWarnings[7].strText.find("LOGCACHE_MSG_SYNC_EDR_PUB_PRIV_REAL iRet[2781]"), std::string::npos);
  EXPECT_NE(vecWarnings.back().strText.find("AGENT_MSG_BROADCAST_CONNECT iRet[3e8]"), std::string::npos);
  m_host.EndLife();
  EXPECT_EQ(m_router.Calls(), WholeLife());
}

TEST_F(LifecycleTest, AContextThatDoesNotInitializeIsOnlyAWarning) {
  m_router.m_uInitializeResult = 0x77;
  BeginLife();
  EXPECT_EQ(m_log.Count("*qmlogcache CLogCacheMgr::Start Warn Initialize iRet[77]"), 1u);
  FileRecord();
}

TEST_F(LifecycleTest, StartsNothingWithoutAContext) {
  EXPECT_EQ(m_host.Initialize(), 0);
  EXPECT_EQ(m_host.Start(), 0);
  EXPECT_EQ(m_host.GetStatus(), 2);
  EXPECT_EQ(m_log.Count("**qmlogcache CLogCacheMgr::Start Error m_pCompCtx is NULL"), 1u);
  EXPECT_EQ(m_log.Count("**qmlogcache CLogCachePluginObj::Start Error Start Error"), 1u);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::Start pthread_create"), 0u);
  m_host.EndLife();
  EXPECT_EQ(m_log.Count("qmlogcache CLogCachePluginObj::Stop End Stop OK"), 1u);
  EXPECT_TRUE(m_router.Calls().empty());
}

TEST_F(LifecycleTest, StopWithoutStartCancelsTheRegistrationsAllTheSame) {
  m_host.Initialize();
  m_host.SetCtx(&m_router);
  EXPECT_EQ(m_host.Stop(), 0);
  std::vector<std::string> vecExpected = AllTypes("UnReceive");
  vecExpected.emplace_back("Uninitialize");
  EXPECT_EQ(m_router.Calls(), vecExpected);
  ExpectNoWarning();
}

TEST_F(LifecycleTest, RunsTwoNamedThreads) {
  BeginLife();
  EXPECT_TRUE(WaitForThreads("logcachework", 1));
  EXPECT_TRUE(WaitForThreads("logcachetimer", 1));
  m_host.Stop();
  EXPECT_TRUE(WaitForThreads("logcachework", 0));
  EXPECT_TRUE(WaitForThreads("logcachetimer", 0));
}

TEST_F(LifecycleTest, StopEndsBothPairsOfThreadsAfterASecondStart) {
  BeginLife();
  m_host.Start();
  EXPECT_TRUE(WaitForThreads("logcachework", 2));
  EXPECT_TRUE(WaitForThreads("logcachetimer", 2));
  m_host.Stop();
  EXPECT_TRUE(WaitForThreads("logcachework", 0));
  EXPECT_TRUE(WaitForThreads("logcachetimer", 0));
  EXPECT_EQ(m_log.Count("*qmlogcache CLogCacheMgr::Stop thread need kill"), 0u);
}

TEST_F(LifecycleTest, AHundredLivesLeaveNothingBehind) {
  constexpr int kLives = 100;
  BeginConnectedLife();
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(1));
  m_host.EndLife();
  const size_t uFiles = CountOpenFiles();
  for (int i = 0; i < kLives; ++i) {
    BeginConnectedLife();
    FileRecord();
    FileRecord(LOGCACHE_MSG_SYNC_EPP_PUB_PRIV_LOW);
    m_host.EndLife();
    ASSERT_EQ(m_host.GetStatus(), 4) << i;
  }
  EXPECT_EQ(CountOpenFiles(), uFiles);
  EXPECT_TRUE(WaitForThreads("logcachework", 0));
  EXPECT_TRUE(WaitForThreads("logcachetimer", 0));
  EXPECT_EQ(m_log.Count("*qmlogcache CLogCacheMgr::Stop thread need kill"), 0u);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCachePluginObj::Uninitialize End"), static_cast<size_t>(kLives) + 1);
}

TEST_F(LifecycleTest, ACallbackAfterUninitializeIsAnsweredFail) {
  BeginLife();
  IMRReceiveComplete* pReceiver = m_router.ReceiverOf(LOGCACHE_MSG_SYNC_EDR_PRIV_LOW);
  m_host.EndLife();
  const size_t uLines = m_log.Count("");
  const unsigned char szData[] = {'x'};
  for (const long i64MsgType : {10100L, 20003L, 1000L, 10300L, 12L}) {
    Answer answer;
    pReceiver->ReceiveCallback(kProducer, i64MsgType, szData, sizeof(szData), &answer, &m_router);
    EXPECT_TRUE(Failed(answer, kWireNoManager)) << i64MsgType;
    EXPECT_EQ(answer.i64MsgType, i64MsgType);
  }
  Answer answer;
  pReceiver->ReceiveCallback(kProducer, 10100, nullptr, 0, &answer, &m_router);
  EXPECT_TRUE(Failed(answer, kWireEmptyData));
  EXPECT_EQ(m_log.Count(""), uLines);  // there is no channel to print on
}

TEST_F(LifecycleTest, ACompletionAfterUninitializeIsDropped) {
  BeginConnectedLife();
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(1));
  m_host.EndLife();
  const size_t uLines = m_log.Count("");
  const SentMessage sent = m_router.Sent().front();
  auto* pContext = reinterpret_cast<void*>(static_cast<uintptr_t>(sent.u64DataId));
  for (const int iRetReply : {0, 1}) {
    sent.pComplete->SendCallback(iRetReply, sent.uMsgType, nullptr, 0, sent.u64Token, pContext);
    sent.pComplete->SendCallback(iRetReply, 1, nullptr, 0, sent.u64Token, pContext);
    sent.pComplete->SendCallback(iRetReply, sent.uMsgType, nullptr, 0, sent.u64Token, nullptr);
  }
  EXPECT_EQ(m_log.Count(""), uLines);
}

TEST_F(LifecycleTest, ACallbackBetweenStopAndUninitializeStillFindsTheManager) {
  BeginConnectedLife();
  IMRReceiveComplete* pReceiver = m_router.ReceiverOf(LOGCACHE_MSG_SYNC_EDR_PRIV_LOW);
  m_host.Stop();
  const unsigned char szData[] = {'x'};
  Answer answer;
  pReceiver->ReceiveCallback(kProducer, 10100, szData, sizeof(szData), &answer, &m_router);
  EXPECT_TRUE(Succeeded(answer));
}

TEST_F(LifecycleTest, ARecordOfOneLifeIsUnknownToTheNext) {
  m_clock.Freeze(1700000000);
  BeginConnectedLife();
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(1));
  m_host.EndLife();
  m_clock.Freeze(1700000001);
  BeginConnectedLife();
  FileRecord();
  ASSERT_TRUE(m_router.WaitForSent(2));
  const std::vector<SentMessage> vecSent = m_router.Sent();
  EXPECT_EQ(vecSent[0].u64DataId, (1700000000ULL << 32) | 1);
  EXPECT_EQ(vecSent[1].u64DataId, (1700000001ULL << 32) | 1);
  EXPECT_TRUE(Failed(m_router.DeliverResult(vecSent[0].u64DataId, 0), kWireUnknownDataId));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(vecSent[1].u64DataId, 0)));
}

}  // namespace
