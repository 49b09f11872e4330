// What happens by the clock: the connection query, the statistics line and the four-hour sweep.
#include <atomic>

#include "component_fixture.h"

namespace {

constexpr char kStatistics[] = "qmlogcache CLogCacheMgr::PrintfStat ";
constexpr time_t kBegin = 1700000000;
constexpr unsigned int kEmptyQueuesMs = 5000;

class ClockTest : public CComponentTest {
 protected:
  // The work thread has gone round at least once since the clock was set, and found nothing to send.
  void WaitForAnIdleRound() { ASSERT_TRUE(m_clock.WaitForEventWaits(kEmptyQueuesMs, 2)); }
  std::string NextStatistics() {
    const size_t uBefore = m_log.Count(kStatistics);
    m_clock.Advance(600);
    EXPECT_TRUE(m_log.WaitForLines(kStatistics, uBefore + 1));
    return m_log.Lines(kStatistics).back().strText;
  }
};

TEST_F(ClockTest, AsksForTheConnectionAfterThirtyOneSecondsAndThenEverySixtyOne) {
  std::vector<uint64_t> vecSleeps;  // of the work thread, which alone asks
  std::atomic<bool> bDone{false};
  m_router.m_pfnOnConnect = [&](const ConnectQuery&) {
    if (!bDone) {
      vecSleeps.push_back(m_clock.SleepsOf("logcachework"));
      bDone = vecSleeps.size() == 3;
    }
    return ConnectAnswer{0, 0, "{\"onlineflag\":\"0\"}"};
  };
  BeginLife();
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache agent is not connected to the server", 3));
  m_host.Stop();
  EXPECT_EQ(vecSleeps, (std::vector<uint64_t>{31, 31 + 61, 31 + 61 + 61}));
}

TEST_F(ClockTest, AsksTheServerLinkWithTheFixedRequest) {
  BeginLife();
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache agent is not connected to the server"));
  const ConnectQuery query = m_router.Queries().front();
  EXPECT_EQ(memcmp(&query.dest, &kServerLink, sizeof(GUID)), 0);
  EXPECT_EQ(query.uCode, 10012u);
  EXPECT_EQ(query.strRequest, "");
  EXPECT_EQ(query.uTimeoutMs, 60000u);
  EXPECT_EQ(query.uStatusBefore, 0xE0010000u);
}

TEST_F(ClockTest, AnOnlineAnswerStartsSending) {
  m_router.m_pfnOnConnect = [](const ConnectQuery&) { return ConnectAnswer{0, 0, "{\"onlineflag\":\"1\"}"}; };
  BeginLife();
  FileRecord();
  EXPECT_TRUE(m_router.WaitForSent(1));
  EXPECT_EQ(m_router.Queries().size(), 1u);
  EXPECT_EQ(m_log.Count("qmlogcache CLogCacheMgr::WorkThread connect server OK"), 1u);
  EXPECT_EQ(m_log.Count("qmlogcache GetServerConnectStat bStatus[1] strFlag[1] strData[{\"onlineflag\":\"1\"}]"), 1u);
}

struct ConnectCase {
  const char* pszName;
  ConnectAnswer answer;
  std::string strLine;
  bool bOnline = false;
};

class ConnectAnswerTest : public CComponentTest, public ::testing::WithParamInterface<ConnectCase> {};

TEST_P(ConnectAnswerTest, IsReadAsSaidAndGivenBack) {
  m_router.m_pfnOnConnect = [](const ConnectQuery&) { return GetParam().answer; };
  BeginLife();
  FileRecord();
  if (GetParam().bOnline) {
    EXPECT_TRUE(m_router.WaitForSent(1));
  } else {
    ASSERT_TRUE(m_log.WaitForLines("qmlogcache agent is not connected to the server"));
    EXPECT_EQ(m_router.SentCount(), 0u);
  }
  EXPECT_GE(m_log.Count(GetParam().strLine), 1u);
  m_host.Stop();
  EXPECT_EQ(m_router.RepliesOut(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ConnectAnswerTest,
    ::testing::Values(
        ConnectCase{
            "ANumberOne", {0, 0, "{\"onlineflag\":1}"}, "qmlogcache GetServerConnectStat bStatus[1] strFlag[1]", true},
        ConnectCase{
            "True", {0, 0, "{\"onlineflag\":true}"}, "qmlogcache GetServerConnectStat bStatus[0] strFlag[true]"},
        ConnectCase{"Zero", {0, 0, "{\"onlineflag\":\"0\"}"}, "qmlogcache GetServerConnectStat bStatus[0] strFlag[0]"},
        ConnectCase{"NoSuchKey",
                    {0, 0, "{\"online\":\"1\"}"},
                    "*qmlogcache GetServerConnectStat Error GetNode onlineflag strData[{\"online\":\"1\"}]"},
        ConnectCase{"NoJson",
                    {0, 0, "onlineflag=1"},
                    "*qmlogcache GetServerConnectStat Error LoadBuffer strData[onlineflag=1]"},
        ConnectCase{"CutShort",
                    {0, 0, "{\"onlineflag\":\"1\""},
                    "*qmlogcache GetServerConnectStat Error LoadBuffer strData[{\"onlineflag\":\"1\"]"},
        ConnectCase{
            "NoReply", {0, 0, "", false}, "*qmlogcache GetServerConnectStat Error AgentGetConnect uiLength[0] pReply["},
        ConnectCase{
            "AnEmptyReply", {0, 0, ""}, "*qmlogcache GetServerConnectStat Error AgentGetConnect uiLength[0] pReply["},
        ConnectCase{"AFailedCall",
                    {0x12, 0x34, "{\"onlineflag\":\"1\"}"},
                    "*qmlogcache GetServerConnectStat Error AgentGetConnect iRet[12]"},
        ConnectCase{"AFailedRequest",
                    {0, 0x34, "{\"onlineflag\":\"1\"}"},
                    "*qmlogcache GetServerConnectStat Error AgentGetConnect iRet[34]"}),
    [](const auto& param) { return std::string(param.param.pszName); });

TEST_F(ClockTest, PrintsTheStatisticsEverySixHundredSeconds) {
  m_clock.Freeze(kBegin);
  BeginConnectedLife();
  WaitForAnIdleRound();
  m_clock.Freeze(kBegin + 599);
  WaitForAnIdleRound();
  EXPECT_EQ(m_log.Count(kStatistics), 0u);
  m_clock.Freeze(kBegin + 600);
  ASSERT_TRUE(m_log.WaitForLines(kStatistics, 1));
  m_clock.Freeze(kBegin + 1199);
  WaitForAnIdleRound();
  EXPECT_EQ(m_log.Count(kStatistics), 1u);
  m_clock.Freeze(kBegin + 1200);
  ASSERT_TRUE(m_log.WaitForLines(kStatistics, 2));
  EXPECT_EQ(m_log.Lines(kStatistics).front().iLevel, 6);
}

TEST_F(ClockTest, PrintsNoStatisticsWhileNotConnected) {
  m_clock.Freeze(kBegin);
  BeginLife();
  m_clock.Freeze(kBegin + 100000);
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache agent is not connected to the server", 2));
  EXPECT_EQ(m_log.Count(kStatistics), 0u);
}

TEST_F(ClockTest, AClockSetBackStartsTheTenMinutesAnew) {
  m_clock.Freeze(kBegin);
  BeginConnectedLife();
  WaitForAnIdleRound();
  m_clock.Freeze(kBegin - 50000);
  WaitForAnIdleRound();
  m_clock.Freeze(kBegin - 50000 + 599);
  WaitForAnIdleRound();
  EXPECT_EQ(m_log.Count(kStatistics), 0u);
  m_clock.Freeze(kBegin - 50000 + 600);
  EXPECT_TRUE(m_log.WaitForLines(kStatistics, 1));
}

TEST_F(ClockTest, TheStatisticsLineCountsWhatPassed) {
  m_router.m_pfnOnSend = [](const SentMessage& sent) {
    return sent.strText.find("<msg=refuse>") != std::string::npos ? 1U : 0U;
  };
  m_clock.Freeze(kBegin);
  BeginConnectedLife();
  FileRecord(10100);                                                                                   // 1
  FileRecord(10111);                                                                                   // 2
  FileRecord(10202);                                                                                   // 3
  FileRecord(10213);                                                                                   // 4
  ASSERT_TRUE(Succeeded(m_router.Deliver(10300, kProducer, ComboPayload({3, 5, 2, "p", "c", "x"}))));  // 5
  ASSERT_TRUE(Succeeded(m_router.Deliver(20300, kProducer, ComboPayload({9, 10, 0, "p", "", "x"}))));  // 6
  ASSERT_TRUE(Succeeded(m_router.Deliver(20300, kProducer, ComboPayload({2, 1, 0, "", "c", "x"}))));   // 7
  ASSERT_TRUE(m_router.WaitForSent(7));
  FileRecord(10103, "refuse");  // 8
  ASSERT_TRUE(m_log.WaitForLines("*qmlogcache step2 Error RunExecData AsynSendEx iRet[0]"));
  const auto idOf = [](uint32_t uSequence) { return (static_cast<uint64_t>(kBegin) << 32) | uSequence; };
  size_t uSent = 7;
  const auto sendAgainAfter = [&](uint64_t u64DataId, uint32_t uResult) {
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(u64DataId, uResult)));
    ASSERT_TRUE(Succeeded(m_router.DeliverConnect()));  // leaves single-send mode
    ASSERT_TRUE(m_router.WaitForSent(++uSent));
  };
  sendAgainAfter(idOf(1), kWireTimeout);
  sendAgainAfter(idOf(1), kWireCloudBusy);
  sendAgainAfter(idOf(1), kWireTimeout);
  sendAgainAfter(idOf(2), kWireCloudFailed);
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(idOf(3), 0)));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(idOf(4), 4)));
  const std::string strLine = NextStatistics();
  EXPECT_EQ(strLine.substr(0, strLine.find(" mapLogCacheFile[")),
            std::string(kStatistics) + "StartTime[" + ToHex(kBegin) +
                "] SequenceId[8] SendRefCount[5] SendSingle[0] SaveCacheToDb[0] SendErrorCount[0] CountAll[8] "
                "CountPlugin[3] CountServer[3] CountCloudTag[1] CountLow[2] CountNormal[2] CountHigh[1] CountReal[2] "
                "CountGuid[7] CountCombo[1] CountSuccess[1] CountAddFail[0] CountSendFail[1] CountRecvFail[1] "
                "CountTimeout[1] CountQmcloud[1] CountReTimeout[1] CountReQmcloud[1]");
  EXPECT_TRUE(
      strLine.ends_with(" mapLogExecData[5] LowQueueData[0] NormalQueueData[0] HighQueueData[0] RealQueueData[0]"));
}

TEST_F(ClockTest, ARecordWithoutAResultIsSentAgainAfterFourHours) {
  m_clock.Freeze(kBegin);
  BeginConnectedLife();
  FileRecord(10101, "early");
  ASSERT_TRUE(m_router.WaitForSent(1));
  m_clock.Freeze(kBegin + 3599);  // one second short of the first sweep
  FileRecord(10101, "late");
  ASSERT_TRUE(m_router.WaitForSent(2));
  m_clock.Freeze(kBegin + 14399);  // a sweep, one second short for the first record
  ASSERT_TRUE(m_log.WaitForLines(kStatistics));
  WaitForAnIdleRound();
  EXPECT_EQ(m_router.SentCount(), 2u);
  m_clock.Freeze(kBegin + 14399 + 3600);  // the next one, exactly four hours after the second record
  ASSERT_TRUE(m_router.WaitForSent(4));
  const std::vector<SentMessage> vecSent = m_router.Sent();
  EXPECT_EQ(vecSent[2].strText, vecSent[0].strText);
  EXPECT_EQ(vecSent[3].strText, vecSent[1].strText);
  WaitForAnIdleRound();
  const std::string strLine = NextStatistics();
  EXPECT_EQ(LogField(strLine, "SendRefCount"), "4");  // the sweep leaves the count in flight as it is
  EXPECT_EQ(LogField(strLine, "mapLogExecData"), "2");
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(vecSent[0].u64DataId, kWireTimeout)));
  EXPECT_EQ(
      LogField(m_log.Lines("*qmlogcache step3 Error ResultExecData ReAddDataAction OK").at(0).strText, "ReSendCount"),
      "1");
}

TEST_F(ClockTest, ARecordTakenByAClockThatWasAheadCountsFromTheNewTime) {
  m_clock.Freeze(kBegin + 1000000);
  BeginConnectedLife();
  FileRecord(10101, "from the future");
  ASSERT_TRUE(m_router.WaitForSent(1));
  m_clock.Freeze(kBegin);  // the hour starts anew
  WaitForAnIdleRound();
  m_clock.Freeze(kBegin + 3600);  // this sweep finds a record taken in the future
  WaitForAnIdleRound();
  m_clock.Freeze(kBegin + 3600 + 14399);
  WaitForAnIdleRound();
  EXPECT_EQ(m_router.SentCount(), 1u);
  m_clock.Freeze(kBegin + 3600 + 14399 + 3600);
  EXPECT_TRUE(m_router.WaitForSent(2));
}

TEST_F(ClockTest, AQueuedRecordIsNotSwept) {
  constexpr size_t kWindow = 128;
  m_clock.Freeze(kBegin);
  BeginConnectedLife();
  for (size_t i = 0; i <= kWindow; ++i) {
    FileRecord();
  }
  ASSERT_TRUE(m_router.WaitForSent(kWindow));
  m_clock.Freeze(kBegin + 14400);
  ASSERT_TRUE(m_log.WaitForLines(kStatistics));
  ASSERT_TRUE(m_clock.WaitForEventWaits(100, 2));
  const std::string strLine = NextStatistics();
  EXPECT_EQ(LogField(strLine, "mapLogExecData"), "129");
  EXPECT_EQ(LogField(strLine, "NormalQueueData"), "129");  // each stands in its queue once
}

}  // namespace
