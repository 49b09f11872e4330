// The road of a record: from a producer's message to the sent text and back to its settlement.
#include "component_fixture.h"

namespace {

class RoadTest : public CComponentTest {
 protected:
  SentMessage LastSent(size_t uCount) {
    EXPECT_TRUE(m_router.WaitForSent(uCount));
    const std::vector<SentMessage> vecSent = m_router.Sent();
    return vecSent.size() == uCount ? vecSent.back() : SentMessage{};
  }
  // A record as the last part of a log line shows it, from its data id on.
  static std::string Fields(const std::string& strLine) {
    const size_t uAt = strLine.find("u64DataId[");
    return uAt == std::string::npos ? std::string() : strLine.substr(uAt);
  }
};

struct IntakeType {
  uint32_t uMsgType;
  int iPriv;
  int iMsgType;
};

class IntakeTypeTest : public RoadTest, public ::testing::WithParamInterface<IntakeType> {};

TEST_P(IntakeTypeTest, TravelsAsTaggedTextAndIsSettled) {
  const auto [uMsgType, iPriv, iMsgType] = GetParam();
  BeginConnectedLife();
  const std::string strData = "{\"a\":\"\xc3\xa9 <x>\",\n\"b\":\"%s%n\"}>";
  const std::optional<Answer> answer = m_router.Deliver(uMsgType, kProducer, strData);
  EXPECT_TRUE(Succeeded(answer));
  EXPECT_EQ(answer->i64MsgType, uMsgType);
  const SentMessage sent = LastSent(1);
  EXPECT_EQ(sent.strText, ExpectedText({sent.u64DataId, iPriv, iMsgType, "", "", strData}));
  const std::optional<Answer> result = m_router.DeliverResult(sent.u64DataId, 0);
  EXPECT_TRUE(Succeeded(result));
  EXPECT_EQ(result->i64MsgType, 20003);
  EXPECT_TRUE(Failed(m_router.DeliverResult(sent.u64DataId, 0), kWireUnknownDataId));
}

INSTANTIATE_TEST_SUITE_P(PriorityMessages, IntakeTypeTest,
                         ::testing::Values(IntakeType{10100, 0, 1}, IntakeType{10101, 1, 1}, IntakeType{10102, 2, 1},
                                           IntakeType{10103, 3, 1}, IntakeType{10110, 10, 1}, IntakeType{10111, 11, 1},
                                           IntakeType{10112, 12, 1}, IntakeType{10113, 13, 1}, IntakeType{10200, 0, 2},
                                           IntakeType{10201, 1, 2}, IntakeType{10202, 2, 2}, IntakeType{10203, 3, 2},
                                           IntakeType{10210, 10, 2}, IntakeType{10211, 11, 2}, IntakeType{10212, 12, 2},
                                           IntakeType{10213, 13, 2}),
                         [](const auto& param) { return std::to_string(param.param.uMsgType); });

class ComboTypeTest : public RoadTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(ComboTypeTest, TravelsAsTaggedTextAndIsSettled) {
  BeginConnectedLife();
  const std::string strName(64, 'N');  // fills its field, without a terminator
  const ComboFields fields{-7, 13, 0, strName, "combo name", "{\"k\":[1,2]}"};
  EXPECT_TRUE(Succeeded(m_router.Deliver(GetParam(), kProducer, ComboPayload(fields) + "beyond the end")));
  const SentMessage sent = LastSent(1);
  EXPECT_EQ(sent.strText, ExpectedText({sent.u64DataId, 13, -7, strName, fields.strCombo, fields.strData}));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(sent.u64DataId, 0)));
}

TEST_P(ComboTypeTest, APayloadShorterThanItSaysIsRefused) {
  BeginConnectedLife();
  const std::string strWhole = ComboPayload({1, 1, 0, "p", "c", "0123456789"});
  for (const size_t uLength : {strWhole.size() - 1, size_t{148}, size_t{147}, size_t{144}, size_t{1}}) {
    EXPECT_TRUE(Failed(m_router.Deliver(GetParam(), kProducer, strWhole.substr(0, uLength)), kWireBadSize)) << uLength;
  }
  std::string strHuge = strWhole;
  strHuge.replace(144, 4, "\xff\xff\xff\xff");  // with the header more than 32 bits hold
  EXPECT_TRUE(Failed(m_router.Deliver(GetParam(), kProducer, strHuge), kWireBadSize));
  EXPECT_TRUE(
      Failed(m_router.Deliver(GetParam(), kProducer, ComboPayload({1, -1, 0, "p", "c", "x"})), kWireUnknownType));
  EXPECT_TRUE(Succeeded(m_router.Deliver(GetParam(), kProducer, ComboPayload({1, 1, 0, "", "", ""}))));
  const SentMessage sent = LastSent(1);  // the empty one, and nothing before it
  EXPECT_EQ(sent.strText, ExpectedText({sent.u64DataId, 1, 1, "", "", ""}));
}

INSTANTIATE_TEST_SUITE_P(ComboMessages, ComboTypeTest, ::testing::Values(10300U, 20300U),
                         [](const auto& param) { return std::to_string(param.param); });

TEST_F(RoadTest, AsksTheRouterForTheServerLink) {
  BeginConnectedLife();
  FileRecord();
  const SentMessage sent = LastSent(1);
  EXPECT_EQ(memcmp(&sent.dest, &kServerLink, sizeof(GUID)), 0);
  EXPECT_EQ(sent.uMsgType, 20002u);
  EXPECT_EQ(sent.uTimeoutMs, 120000u);
  ASSERT_NE(sent.pComplete, nullptr);
}

TEST_F(RoadTest, DataWithAZeroByteIsCutThereInTheText) {
  using namespace std::string_literals;
  BeginConnectedLife();
  FileRecord(10111, "left\0right"s);
  EXPECT_EQ(LastSent(1).strText, ExpectedText({LastSent(1).u64DataId, 11, 1, "", "", "left"}));
}

TEST_F(RoadTest, DataIdsCountUpFromOneUnderTheStartTime) {
  m_clock.Freeze(0x65000000);
  BeginConnectedLife();
  for (uint64_t u = 1; u <= 3; ++u) {
    FileRecord();
    EXPECT_EQ(LastSent(u).u64DataId, (0x65000000ULL << 32) | u);
  }
}

TEST_F(RoadTest, AMessageThatExpectsNoAnswerGetsNone) {
  BeginConnectedLife();
  EXPECT_TRUE(m_router.DeliverWithoutAnswer(10103, kProducer, "quiet"));  // an answer would go to a null handle
  EXPECT_TRUE(m_router.DeliverWithoutAnswer(10103, kProducer, ""));
  EXPECT_EQ(LastSent(1).strText, ExpectedText({LastSent(1).u64DataId, 3, 1, "", "", "quiet"}));
}

TEST_F(RoadTest, MessagesThatAreNoneAreRefused) {
  BeginLife();
  EXPECT_TRUE(Failed(m_router.Deliver(10100, kProducer, ""), kWireEmptyData));
  EXPECT_TRUE(Failed(m_router.Deliver(1000, kServerLink, ""), kWireEmptyData));
  for (const size_t uLength : {size_t{31}, size_t{33}, size_t{1}}) {
    EXPECT_TRUE(Failed(m_router.Deliver(20003, kServerLink, std::string(uLength, 'x')), kWireBadResultSize));
  }
  IMRReceiveComplete* pReceiver = m_router.ReceiverOf(10100);
  const unsigned char szData[] = {'x'};
  for (const long i64MsgType : {10104L, 10109L, 10114L, 10099L, 10154L, 10204L, 0L, -1L}) {
    Answer answer;
    pReceiver->ReceiveCallback(kProducer, i64MsgType, szData, sizeof(szData), &answer, &m_router);
    EXPECT_TRUE(Failed(answer, kWireUnknownType)) << i64MsgType;
  }
}

TEST_F(RoadTest, HigherPrioritiesLeaveFirstAndEachInItsOrder) {
  BeginLife();
  std::vector<std::string> vecExpected;
  const std::vector<uint32_t> vecTypes = {10100, 10213, 10111, 10102, 10203, 10110, 10201, 10212, 10103, 10200};
  for (const std::string strRound : {"a", "b"}) {
    for (const uint32_t uMsgType : vecTypes) {
      FileRecord(uMsgType, std::to_string(uMsgType) + strRound);
    }
  }
  for (const uint32_t uPriority : {3U, 2U, 1U, 0U}) {
    for (const char* pszRound : {"a", "b"}) {
      for (const uint32_t uMsgType : vecTypes) {
        if (uMsgType % 10 == uPriority) {
          vecExpected.push_back(std::to_string(uMsgType) + pszRound);
        }
      }
    }
  }
  ASSERT_TRUE(Succeeded(m_router.DeliverConnect()));
  ASSERT_TRUE(m_router.WaitForSent(vecExpected.size()));
  std::vector<std::string> vecSent;
  for (const SentMessage& sent : m_router.Sent()) {
    const std::string& strText = sent.strText;
    const size_t uBegin = strText.find("<msg=") + 5;
    vecSent.push_back(strText.substr(uBegin, strText.size() - uBegin - 1));
  }
  EXPECT_EQ(vecSent, vecExpected);
}

TEST_F(RoadTest, ARealTimeRecordOvertakesWhatWaits) {
  BeginConnectedLife();
  for (int i = 0; i < 130; ++i) {
    FileRecord(10100);
  }
  ASSERT_TRUE(m_router.WaitForSent(128));
  FileRecord(10113, "urgent");
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(m_router.Sent().front().u64DataId, 0)));
  EXPECT_NE(LastSent(129).strText.find("<msg=urgent>"), std::string::npos);
}

TEST_F(RoadTest, OddComboPrioritiesAreSentToo) {
  BeginConnectedLife();
  size_t uCount = 0;
  for (const int32_t iPriv : {4, 5, 7, 9, 14, 100, 2147483647}) {
    ASSERT_TRUE(Succeeded(m_router.Deliver(10300, kProducer, ComboPayload({1, iPriv, 0, "", "", "x"}))));
    const SentMessage sent = LastSent(++uCount);
    EXPECT_EQ(sent.strText, ExpectedText({sent.u64DataId, iPriv, 1, "", "", "x"}));
  }
}

TEST_F(RoadTest, ADeliveredRecordIsLoggedWithItsFields) {
  m_clock.Freeze(0x65432100);
  BeginConnectedLife();
  FileRecord(10211, "delivered");
  const SentMessage sent = LastSent(1);
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(sent.u64DataId, 0)));
  const std::string strId = ToHex(sent.u64DataId);
  const std::string strIntake = m_log.WaitForText("qmlogcache step1 OK AddDataAction ");
  EXPECT_EQ(LogField(strIntake, "i64MsgType"), "27e3");
  EXPECT_EQ(LogField(strIntake, "u64DataId"), strId);
  EXPECT_EQ(LogField(strIntake, "strData"), "delivered");
  const std::string strSent = m_log.WaitForText("qmlogcache step2 OK RunExecData AsynSendEx ");
  EXPECT_EQ(strSent, "qmlogcache step2 OK RunExecData AsynSendEx lRefCount[1] ui64ACT[" + ToHex(sent.u64Token) +
                         "] u64DataId[" + strId + "] iPriv[11] iMsgType[2] strPluginId[" + kProducerText +
                         "] strProduct[] strCombo[]");
  const std::string strDone = m_log.WaitForText("qmlogcache step3 OK ResultExecData DeleteDataAction OK ");
  EXPECT_EQ(strDone.substr(0, strDone.find(" u64DataId")),
            "qmlogcache step3 OK ResultExecData DeleteDataAction OK SubSendRef lRefCount[0] StartTime[65432100] "
            "ReSendCount[0] ui64ACT[0]");
  EXPECT_EQ(LogField(strDone, "u64DataId"), strId);
  EXPECT_TRUE(strDone.ends_with("]\n"));
  EXPECT_EQ(m_log.Lines("qmlogcache step3 OK").front().iLevel, 2);
}

TEST_F(RoadTest, ARetryableResultSendsTheSameTextAgain) {
  BeginConnectedLife();
  FileRecord(10102, "again and again");
  const SentMessage first = LastSent(1);
  size_t uSends = 1;
  for (const uint32_t uResult : {kWireTimeout, kWireCloudBusy, kWireCloudFailed, kWireTimeout}) {
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(first.u64DataId, uResult)));
    const SentMessage again = LastSent(++uSends);
    EXPECT_EQ(again.u64DataId, first.u64DataId);
    EXPECT_EQ(again.strText, first.strText);
    const LogLine line = m_log.Lines("*qmlogcache step3 Error ResultExecData ReAddDataAction OK").back();
    EXPECT_EQ(LogField(line.strText, "result"), ToHex(uResult));
    EXPECT_EQ(LogField(line.strText, "ReSendCount"), std::to_string(uSends - 2));
    EXPECT_EQ(line.iLevel, 3);
    EXPECT_EQ(line.strChannel, kMainChannel);
  }
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(first.u64DataId, 0)));
  EXPECT_EQ(LogField(m_log.Lines("qmlogcache step3 OK ResultExecData").back().strText, "ReSendCount"), "4");
}

TEST_F(RoadTest, ARejectedRecordIsKeptOnTheErrorChannelAndGone) {
  BeginConnectedLife();
  FileRecord(10200, "the only copy");
  const SentMessage sent = LastSent(1);
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(sent.u64DataId, 0x1234)));
  const std::vector<LogLine> vecKept = m_log.Lines("*qmlogcache step3 Error ResultExecData result[1234] ");
  ASSERT_EQ(vecKept.size(), 1u);
  EXPECT_EQ(vecKept[0].strChannel, kErrorChannel);
  EXPECT_EQ(vecKept[0].iLevel, 3);
  EXPECT_TRUE(vecKept[0].strText.ends_with(" strData[" + sent.strText + "]"));
  const std::vector<LogLine> vecGone = m_log.Lines("*qmlogcache step3 Error ResultExecData DeleteDataAction OK ");
  ASSERT_EQ(vecGone.size(), 1u);
  EXPECT_EQ(vecGone[0].strChannel, kMainChannel);
  EXPECT_EQ(LogField(vecGone[0].strText, "lRefCount"), "0");
  EXPECT_TRUE(Failed(m_router.DeliverResult(sent.u64DataId, 0), kWireUnknownDataId));
}

TEST_F(RoadTest, AnUnknownResultIsLoggedWithItsTwoValuesUnderEachOthersLabel) {
  BeginConnectedLife();
  EXPECT_TRUE(Failed(m_router.DeliverResult(777, 5), kWireUnknownDataId));
  EXPECT_EQ(m_log.Lines("*").back().strText,
            "*qmlogcache step3 Error ResultExecData GetExecDataFromMap iRet[a0010042] SubSendRef lRefCount[0] "
            "ui64ACT[ffffffffffffffff] u64DataId[777] dwResult[5]\n");
}

TEST_F(RoadTest, ARefusedSendDropsTheRecordAndKeepsItOnTheErrorChannel) {
  m_router.m_pfnOnSend = [](const SentMessage& sent) {
    return sent.strText.find("unwanted") != std::string::npos ? 0xE0010099U : 0U;
  };
  BeginConnectedLife();
  FileRecord(10112, "unwanted");
  const std::string strDropped = m_log.WaitForText("*qmlogcache step2 Error RunExecData AsynSendEx iRet[0] ");
  const std::vector<LogLine> vecKept = m_log.Lines("*qmlogcache step2 Error RunExecData lRefCount[0] iRet[e0010099] ");
  ASSERT_EQ(vecKept.size(), 1u);
  EXPECT_EQ(vecKept[0].strChannel, kErrorChannel);
  EXPECT_EQ(LogField(vecKept[0].strText, "i64MsgType"), "4e22");
  const uint64_t u64DataId = std::stoull(LogField(vecKept[0].strText, "u64DataId"), nullptr, 16);
  EXPECT_EQ(Fields(vecKept[0].strText), "u64DataId[" + ToHex(u64DataId) + "] iPriv[12] iMsgType[1] strPluginId[" +
                                            kProducerText + "] strProduct[] strCombo[] strData[" +
                                            ExpectedText({u64DataId, 12, 1, "", "", "unwanted"}) + "]");
  EXPECT_EQ(strDropped, "*qmlogcache step2 Error RunExecData AsynSendEx iRet[0] i64MsgType[4e22] u64DataId[" +
                            ToHex(u64DataId) + "] iPriv[12] iMsgType[1] strPluginId[" + kProducerText +
                            "] strProduct[] strCombo[]");
  EXPECT_TRUE(Failed(m_router.DeliverResult(u64DataId, 0), kWireUnknownDataId));
  FileRecord(10112, "wanted");
  EXPECT_NE(LastSent(1).strText.find("<msg=wanted>"), std::string::npos);
}

TEST_F(RoadTest, ATransportFailureIsTheRecordsResult) {
  BeginConnectedLife();
  FileRecord(10100, "lost on the way");
  const SentMessage first = LastSent(1);
  ASSERT_TRUE(m_router.Complete(first, static_cast<int>(kWireTimeout)));
  const SentMessage again = LastSent(2);
  EXPECT_EQ(again.strText, first.strText);
  EXPECT_EQ(LogField(m_log.Lines("*qmlogcache step3 Error ResultExecData ReAddDataAction OK").at(0).strText, "ui64ACT"),
            ToHex(first.u64Token));
  ASSERT_TRUE(m_router.Complete(again, 9));
  EXPECT_EQ(m_log.Count("*qmlogcache step3 Error ResultExecData result[9] "), 1u);
  EXPECT_TRUE(Failed(m_router.DeliverResult(first.u64DataId, 0), kWireUnknownDataId));
}

TEST_F(RoadTest, ATransportSuccessSettlesNothing) {
  BeginConnectedLife();
  FileRecord();
  const SentMessage sent = LastSent(1);
  ASSERT_TRUE(m_router.Complete(sent, 0));
  const std::vector<LogLine> vecLines = m_log.Lines("qmlogcache step2 OK SendCallback ");
  ASSERT_EQ(vecLines.size(), 1u);
  EXPECT_EQ(vecLines[0].strText, "qmlogcache step2 OK SendCallback i64MsgType[4e22] iRetReply[0] ui64ACT[" +
                                     ToHex(sent.u64Token) + "] u64DataId[" + ToHex(sent.u64DataId) + "]");
  EXPECT_EQ(vecLines[0].iLevel, 1);
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(sent.u64DataId, 0)));
}

TEST_F(RoadTest, AForeignCompletionAndOneWithoutAnIdAreDropped) {
  BeginConnectedLife();
  FileRecord();
  SentMessage sent = LastSent(1);
  const uint64_t u64DataId = sent.u64DataId;
  sent.uMsgType = 20001;
  ASSERT_TRUE(m_router.Complete(sent, 1));
  EXPECT_EQ(m_log.Count("*qmlogcache SendCallback i64MsgType NOT AGENT_MSG_ASYNC_LOGCACHE i64MsgType[4e21] "
                        "iRetReply[1] ui64ACT["),
            1u);
  sent.uMsgType = 20002;
  sent.u64DataId = 0;
  ASSERT_TRUE(m_router.Complete(sent, 1));
  EXPECT_EQ(m_log.Count("*qmlogcache SendCallback pContext is NULL i64MsgType[4e22] iRetReply[1] ui64ACT["), 1u);
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(u64DataId, 0)));
}

TEST_F(RoadTest, AResultThatComesBeforeTheSendReturnsSettlesTheRecord) {
  std::optional<Answer> answer;
  m_router.m_pfnOnSend = [&](const SentMessage& sent) {
    std::thread destination([&, u64DataId = sent.u64DataId] { answer = m_router.DeliverResult(u64DataId, 0); });
    destination.join();
    return 0U;
  };
  BeginConnectedLife();
  FileRecord(10101, "fast");
  const SentMessage sent = LastSent(1);
  EXPECT_TRUE(Succeeded(answer));
  const std::string strSent = m_log.WaitForText("qmlogcache step2 OK RunExecData AsynSendEx ");
  EXPECT_EQ(LogField(strSent, "u64DataId"), ToHex(sent.u64DataId));
  EXPECT_EQ(LogField(strSent, "strPluginId"), kProducerText);
}

TEST_F(RoadTest, ADoubledResultSettlesNoOtherRecord) {
  BeginConnectedLife();
  for (int i = 0; i < 3; ++i) {
    FileRecord();
  }
  ASSERT_TRUE(m_router.WaitForSent(3));
  const std::vector<SentMessage> vecSent = m_router.Sent();
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(vecSent[1].u64DataId, 0)));
  EXPECT_TRUE(Failed(m_router.DeliverResult(vecSent[1].u64DataId, 0), kWireUnknownDataId));
  EXPECT_TRUE(Failed(m_router.DeliverResult(vecSent[1].u64DataId, 3), kWireUnknownDataId));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(vecSent[2].u64DataId, 0)));
  EXPECT_TRUE(Succeeded(m_router.DeliverResult(vecSent[0].u64DataId, 0)));
}

}  // namespace
