// Directed sends, broadcasts and requests.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

#include "host/protocol/host_status.h"
#include "tests/unit/host_router/router_fakes.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

namespace {

constexpr uint32_t kRecordType = 20002;
constexpr uint32_t kResultType = 20003;
constexpr uint32_t kConnectType = 1000;
constexpr uint32_t kUnknownType = 4711;

class SendTest : public ::testing::TestWithParam<unsigned int> {
 protected:
  void SetUp() override {
    RouterOptions options;
    options.uCompletionThreads = GetParam();
    m_pRouter = CreateRouter(options);
    m_pSender = m_pRouter->CreateContext();
    m_pDest = m_pRouter->CreateContext();
    ASSERT_EQ(m_pSender->Initialize(kSenderGuid), kHostOk);
    ASSERT_EQ(m_pDest->Initialize(kDestGuid), kHostOk);
  }
  void TearDown() override {
    m_Release.Set();
    m_pSender->Uninitialize();
    m_pDest->Uninitialize();
    m_pSender.reset();
    m_pDest.reset();
    m_pRouter.reset();
  }
  void ReplyWith(int32_t iRet, std::string strText) {
    m_Receiver.fnThen = [this, iRet, strText](const SeenMessage& message) {
      EXPECT_EQ(m_pDest->Reply(iRet, kRecordType, strText.data(), static_cast<uint32_t>(strText.size()),
                               message.pReplyHandle),
                kHostOk);
    };
  }
  // Occupies every thread of the lane until m_Release is set.
  void BlockLane() {
    m_Blocker.fnThen = [this](const SeenMessage&) { EXPECT_TRUE(m_Release.Wait()); };
    ASSERT_EQ(m_pDest->Receive(kResultType, &m_Blocker, nullptr), kHostOk);
    for (unsigned int uThread = 0; uThread < GetParam(); ++uThread) {
      ASSERT_EQ(Send(*m_pSender, kDestGuid, kResultType, "block", nullptr), kHostOk);
    }
    ASSERT_TRUE(m_Blocker.WaitFor(GetParam()));
  }

  std::unique_ptr<IRouter> m_pRouter;
  std::shared_ptr<IHostContext> m_pSender;
  std::shared_ptr<IHostContext> m_pDest;
  // The lane may be on its way out of a callback when a test is over, so whatever is called lives until TearDown has
  // ended the components.
  CFakeReceiver m_Receiver;
  CFakeReceiver m_Other;
  CFakeReceiver m_Blocker;
  CFakeCompletion m_Completion;
  CFakeCompletion m_OtherCompletion;
  CSignal m_Release;
  CSignal m_Done;
};

INSTANTIATE_TEST_SUITE_P(Threads, SendTest, ::testing::Values(1U, 3U));

TEST_P(SendTest, DeliversAndCompletesWithTheReply) {
  ReplyWith(3, "done");
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, this), kHostOk);
  uint64_t u64Act = 0;
  std::string strData = "record";
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, strData, &m_Completion, 77, &u64Act), kHostOk);
  strData.assign("XXXXXX");  // the bytes were lent for the call alone
  ASSERT_TRUE(m_Completion.WaitFor(1));
  const SeenMessage message = m_Receiver.Items()[0];
  EXPECT_EQ(message.sender.Data1, kSenderGuid.Data1);
  EXPECT_EQ(message.strData, "record");
  EXPECT_EQ(message.pContext, this);
  EXPECT_NE(message.thread, std::this_thread::get_id());
  const SeenCompletion completion = m_Completion.Items()[0];
  EXPECT_EQ(completion.iRet, 3);
  EXPECT_EQ(completion.i64MsgType, kRecordType);
  EXPECT_EQ(completion.strReply, "done");
  EXPECT_GT(u64Act, 0U);
  EXPECT_EQ(completion.u64Act, u64Act);
  EXPECT_EQ(completion.uUserValue, 77U);
  EXPECT_NE(completion.thread, std::this_thread::get_id());
}

TEST_P(SendTest, TheTokenIsWrittenBeforeTheCompletionRuns) {
  ReplyWith(0, "");
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  // Each send has a token variable of its own, whose index is the user value.
  constexpr size_t kSends = 500;
  std::vector<uint64_t> vecTokens(kSends, 0);
  std::atomic<size_t> uWrong{0};
  m_Completion.fnThen = [&](const SeenCompletion& completion) {
    uWrong += vecTokens[completion.uUserValue] == completion.u64Act ? 0 : 1;
  };
  for (size_t uSend = 0; uSend < kSends; ++uSend) {
    ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion, uSend, &vecTokens[uSend]), kHostOk);
  }
  ASSERT_TRUE(m_Completion.WaitFor(kSends));
  ASSERT_EQ(m_pSender->Uninitialize(), kHostOk);
  EXPECT_EQ(uWrong, 0U);
  std::sort(vecTokens.begin(), vecTokens.end());
  EXPECT_EQ(std::adjacent_find(vecTokens.begin(), vecTokens.end()), vecTokens.end());
  EXPECT_GT(vecTokens.front(), 0U);
}

TEST_P(SendTest, RefusesWhatCannotBeDelivered) {
  EXPECT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion), kHostNoDestination);
  EXPECT_EQ(Send(*m_pSender, kProducerGuid, kRecordType, "x", &m_Completion), kHostNoDestination);
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(Send(*m_pSender, kSenderGuid, kRecordType, "x", &m_Completion), kHostNoDestination);
  EXPECT_EQ(m_pSender->AsynSendEx(nullptr, kRecordType, nullptr, 0, nullptr, 0, nullptr, 0), kHostBadArgument);
  EXPECT_EQ(m_pSender->AsynSendEx(&kDestGuid, kRecordType, nullptr, 1, nullptr, 0, nullptr, 0), kHostBadArgument);
  EXPECT_EQ(m_Receiver.Count(), 0U);
  EXPECT_EQ(m_Completion.Count(), 0U);
}

TEST_P(SendTest, GoesToTheComponentWithTheGuidAlone) {
  ASSERT_EQ(m_pSender->Receive(kRecordType, &m_Other, nullptr), kHostOk);
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", nullptr), kHostOk);
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  EXPECT_EQ(m_Other.Count(), 0U);
}

TEST_P(SendTest, WithoutACompletionTheReceiverGetsNoReplyHandle) {
  ASSERT_EQ(m_pDest->Receive(kResultType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kResultType, "x", nullptr), kHostOk);
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  EXPECT_EQ(m_Receiver.Items()[0].pReplyHandle, nullptr);
}

TEST_P(SendTest, ALaterReplyFromAnotherThreadCompletesOnTheLane) {
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion), kHostOk);
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  EXPECT_EQ(m_Completion.Count(), 0U);
  void* pHandle = m_Receiver.Items()[0].pReplyHandle;
  ASSERT_EQ(m_pDest->Reply(4, kRecordType, "ok", 2, pHandle), kHostOk);
  EXPECT_EQ(m_pDest->Reply(5, kRecordType, "ok", 2, pHandle), kHostBadArgument);
  ASSERT_TRUE(m_Completion.WaitFor(1));
  EXPECT_EQ(m_Completion.Items()[0].iRet, 4);
  EXPECT_NE(m_Completion.Items()[0].thread, std::this_thread::get_id());
}

TEST_P(SendTest, AnAnswerDuringTheDeliveryCompletesTheSendOnItsThreadWhenTheReceiverHasReturned) {
  CCollector<std::string> events;
  m_Receiver.fnThen = [&](const SeenMessage& message) {
    EXPECT_EQ(m_pDest->Reply(0, kRecordType, nullptr, 0, message.pReplyHandle), kHostOk);
    EXPECT_EQ(m_pDest->Reply(0, kRecordType, nullptr, 0, message.pReplyHandle), kHostBadArgument);
    events.Put("received " + message.strData);
  };
  m_Completion.fnThen = [&](const SeenCompletion& completion) {
    events.Put("completed " + std::to_string(completion.uUserValue));
  };
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "1", &m_Completion, 1), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "2", &m_Completion, 2), kHostOk);
  ASSERT_TRUE(events.WaitFor(4));
  ASSERT_EQ(m_pSender->Uninitialize(), kHostOk);
  const std::vector<std::string> vecEvents = events.Items();
  if (GetParam() == 1) {
    EXPECT_EQ(vecEvents, (std::vector<std::string>{"received 1", "completed 1", "received 2", "completed 2"}));
  }
  for (const SeenMessage& message : m_Receiver.Items()) {
    const auto vecCompletions = m_Completion.Items();
    const auto it = std::find_if(vecCompletions.begin(), vecCompletions.end(), [&](const SeenCompletion& completion) {
      return std::to_string(completion.uUserValue) == message.strData;
    });
    ASSERT_NE(it, vecCompletions.end());
    EXPECT_EQ(it->thread, message.thread);
    EXPECT_LT(std::find(vecEvents.begin(), vecEvents.end(), "received " + message.strData),
              std::find(vecEvents.begin(), vecEvents.end(), "completed " + message.strData));
  }
}

TEST_P(SendTest, TheSenderCannotAnswerItsOwnMessage) {
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion), kHostOk);
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  EXPECT_EQ(m_pSender->Reply(0, kRecordType, nullptr, 0, m_Receiver.Items()[0].pReplyHandle), kHostBadArgument);
}

TEST_P(SendTest, AnUnansweredSendTimesOutOnce) {
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion, 1, nullptr, 500), kHostOk);
  ASSERT_TRUE(m_Completion.WaitFor(1));
  EXPECT_EQ(static_cast<uint32_t>(m_Completion.Items()[0].iRet), kHostSendTimeout);
  // A delivery that the machine was too slow for is not made; one that was made is answered too late.
  for (const SeenMessage& message : m_Receiver.Items()) {
    EXPECT_EQ(m_pDest->Reply(0, kRecordType, nullptr, 0, message.pReplyHandle), kHostBadArgument);
  }
  ASSERT_EQ(m_pSender->Uninitialize(), kHostOk);
  EXPECT_EQ(m_Completion.Count(), 1U);
}

TEST_P(SendTest, ASendThatTimesOutInTheQueueIsNeverDelivered) {
  BlockLane();
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "late", &m_Completion, 1, nullptr, 1), kHostOk);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the deadline passes while the lane is occupied
  m_Release.Set();
  ASSERT_TRUE(m_Completion.WaitFor(1));
  EXPECT_EQ(static_cast<uint32_t>(m_Completion.Items()[0].iRet), kHostSendTimeout);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "marker", nullptr), kHostOk);
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  EXPECT_EQ(m_Receiver.Items()[0].strData, "marker");
  ASSERT_EQ(m_pSender->Uninitialize(), kHostOk);
  EXPECT_EQ(m_Completion.Count(), 1U);
}

TEST_P(SendTest, ASendWithoutACompletionNeverExpires) {
  BlockLane();
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "late", nullptr, 0, nullptr, 1), kHostOk);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the time-out passes while the lane is occupied
  m_Release.Set();
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  EXPECT_EQ(m_Receiver.Items()[0].strData, "late");
}

TEST_P(SendTest, EverySendHasOneOutcomeWhenRepliesRaceWithTheTimeOut) {
  m_Receiver.fnThen = [this](const SeenMessage& message) {
    std::this_thread::sleep_for(std::chrono::microseconds(500));
    static_cast<void>(m_pDest->Reply(9, kRecordType, nullptr, 0, message.pReplyHandle));
  };
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  constexpr size_t kSends = 300;
  for (size_t uSend = 0; uSend < kSends; ++uSend) {
    ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion, uSend, nullptr,
                   1 + static_cast<uint32_t>(uSend % 60)),
              kHostOk);
  }
  ASSERT_TRUE(m_Completion.WaitFor(kSends));
  ASSERT_EQ(m_pSender->Uninitialize(), kHostOk);
  std::vector<int> vecSeen(kSends, 0);
  for (const SeenCompletion& completion : m_Completion.Items()) {
    ++vecSeen.at(completion.uUserValue);
    EXPECT_TRUE(completion.iRet == 9 || static_cast<uint32_t>(completion.iRet) == kHostSendTimeout);
  }
  EXPECT_EQ(vecSeen, std::vector<int>(kSends, 1));
}

TEST_P(SendTest, ADestinationThatGoesBeforeTheDeliveryCompletesTheSend) {
  BlockLane();
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion), kHostOk);
  ASSERT_EQ(m_pDest->UnReceive(kRecordType), kHostOk);
  m_Release.Set();
  ASSERT_TRUE(m_Completion.WaitFor(1));
  EXPECT_EQ(static_cast<uint32_t>(m_Completion.Items()[0].iRet), kHostNoDestination);
  EXPECT_EQ(m_Receiver.Count(), 0U);
}

TEST_P(SendTest, ADestinationThatEndsWithoutAReplyLeavesTheOutcomeUnknown) {
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion), kHostOk);
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  ASSERT_EQ(m_pDest->Uninitialize(), kHostOk);
  ASSERT_TRUE(m_Completion.WaitFor(1));
  EXPECT_EQ(static_cast<uint32_t>(m_Completion.Items()[0].iRet), kHostSendTimeout);
}

TEST_P(SendTest, NoCompletionRunsAfterTheSendersUninitialize) {
  BlockLane();
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  for (int iSend = 0; iSend < 20; ++iSend) {
    ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion), kHostOk);
  }
  ASSERT_EQ(m_pSender->Uninitialize(), kHostOk);
  m_Release.Set();
  // What is queued behind them shows that the lane is past them.
  ASSERT_EQ(m_pSender->Initialize(kSenderGuid), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "marker", nullptr), kHostOk);
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  EXPECT_EQ(m_Receiver.Items()[0].strData, "marker");
  EXPECT_EQ(m_Completion.Count(), 0U);
}

TEST_P(SendTest, UninitializeWaitsForARunningCompletionButNotForItsOwn) {
  ReplyWith(0, "");
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  CSignal inside;
  CSignal release;
  std::atomic<bool> bLeft{false};
  m_Completion.fnThen = [&](const SeenCompletion&) {
    inside.Set();
    EXPECT_TRUE(release.Wait());
    bLeft = true;
  };
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion), kHostOk);
  ASSERT_TRUE(inside.Wait());
  std::thread ender([&] {
    EXPECT_EQ(m_pSender->Uninitialize(), kHostOk);
    EXPECT_TRUE(bLeft);
  });
  while (Send(*m_pSender, kDestGuid, kUnknownType, "x", nullptr) != kHostStopping) {
    std::this_thread::yield();
  }
  release.Set();
  ender.join();

  m_OtherCompletion.fnThen = [&](const SeenCompletion&) {
    EXPECT_EQ(m_pSender->Uninitialize(), kHostOk);
    m_Done.Set();
  };
  ASSERT_EQ(m_pSender->Initialize(kSenderGuid), kHostOk);
  ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_OtherCompletion), kHostOk);
  EXPECT_TRUE(m_Done.Wait());
}

TEST_P(SendTest, ThrowingCallbacksHarmNobody) {
  m_Receiver.fnThen = [this](const SeenMessage& message) {
    EXPECT_EQ(m_pDest->Reply(0, kRecordType, nullptr, 0, message.pReplyHandle), kHostOk);
    throw std::runtime_error("receiver");
  };
  m_Completion.fnThen = [](const SeenCompletion&) { throw 1; };
  ASSERT_EQ(m_pDest->Receive(kRecordType, &m_Receiver, nullptr), kHostOk);
  for (int iSend = 0; iSend < 3; ++iSend) {
    ASSERT_EQ(Send(*m_pSender, kDestGuid, kRecordType, "x", &m_Completion), kHostOk);
  }
  EXPECT_TRUE(m_Completion.WaitFor(3));
}

TEST_P(SendTest, ABroadcastReachesEveryRegisteredComponent) {
  ASSERT_EQ(m_pSender->Receive(kConnectType, &m_Other, nullptr), kHostOk);
  ASSERT_EQ(m_pDest->Receive(kConnectType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(m_pDest->Receive(kResultType, &m_Blocker, nullptr), kHostOk);
  ASSERT_EQ(m_pDest->Broadcast(kConnectType, "up"), kHostOk);
  ASSERT_TRUE(m_Other.WaitFor(1));
  ASSERT_TRUE(m_Receiver.WaitFor(1));
  for (const SeenMessage& message : {m_Other.Items()[0], m_Receiver.Items()[0]}) {
    EXPECT_EQ(message.sender.Data1, kDestGuid.Data1);
    EXPECT_EQ(message.i64MsgType, kConnectType);
    EXPECT_EQ(message.strData, "up");
    EXPECT_EQ(message.pReplyHandle, nullptr);
  }
  EXPECT_EQ(m_Blocker.Count(), 0U);
  EXPECT_EQ(m_pDest->Broadcast(kRecordType, "up"), kHostBadArgument);
}

TEST_P(SendTest, ABroadcastFindsItsReceiversWhenItIsDelivered) {
  BlockLane();
  ASSERT_EQ(m_pDest->Broadcast(kConnectType, "up"), kHostOk);
  ASSERT_EQ(m_pSender->Receive(kConnectType, &m_Receiver, nullptr), kHostOk);
  m_Release.Set();
  EXPECT_TRUE(m_Receiver.WaitFor(1));
}

class CFakeRequests : public IRequestHandler {
 public:
  uint32_t HandleRequest(uint32_t uCode, std::string_view svRequest, std::string& strReply) override {
    uSeenCode = uCode;
    strSeen = svRequest;
    thread = std::this_thread::get_id();
    if (fnThen) {
      fnThen();
    }
    strReply = strAnswer;
    return uAnswer;
  }
  std::function<void()> fnThen;
  std::string strAnswer = R"({"onlineflag":"1"})";
  uint32_t uAnswer = 0;
  uint32_t uSeenCode = 0;
  std::string strSeen;
  std::thread::id thread;
};

struct RequestOutcome {
  uint32_t uReturned = 0;
  uint32_t uStatus = 0xE0010000;
  void* pReply = nullptr;
  uint32_t uLength = 0;
};

RequestOutcome Ask(IComponentContext& context, const GUID& dest) {
  RequestOutcome outcome;
  outcome.uReturned =
      context.AgentGetConnect(&dest, 10012, "", 0, &outcome.uStatus, &outcome.pReply, &outcome.uLength, 60000);
  return outcome;
}

TEST_P(SendTest, ARequestIsAnsweredOnTheAskingThread) {
  CFakeRequests requests;
  m_pDest->SetRequestHandler(&requests);
  const RequestOutcome outcome = Ask(*m_pSender, kDestGuid);
  EXPECT_EQ(outcome.uReturned, kHostOk);
  EXPECT_EQ(outcome.uStatus, 0U);
  ASSERT_NE(outcome.pReply, nullptr);
  EXPECT_EQ(outcome.uLength, requests.strAnswer.size());
  EXPECT_STREQ(static_cast<const char*>(outcome.pReply), requests.strAnswer.c_str());
  EXPECT_EQ(requests.uSeenCode, 10012U);
  EXPECT_EQ(requests.thread, std::this_thread::get_id());
  EXPECT_EQ(m_pSender->FreeReply(outcome.pReply), kHostOk);
  EXPECT_EQ(m_pSender->FreeReply(nullptr), kHostBadArgument);
}

TEST_P(SendTest, ARequestWithoutAHandlerLeavesTheOutcomeUntouched) {
  for (const GUID& dest : {kDestGuid, kProducerGuid}) {
    const RequestOutcome outcome = Ask(*m_pSender, dest);
    EXPECT_EQ(outcome.uReturned, kHostNoDestination);
    EXPECT_EQ(outcome.uStatus, 0xE0010000);
    EXPECT_EQ(outcome.pReply, nullptr);
  }
  EXPECT_EQ(m_pSender->AgentGetConnect(nullptr, 1, "", 0, nullptr, nullptr, nullptr, 0), kHostBadArgument);
}

TEST_P(SendTest, ARequestHandlerThatFailsOrThrowsIsToldApart) {
  CFakeRequests requests;
  requests.uAnswer = 5;
  requests.strAnswer.clear();
  m_pDest->SetRequestHandler(&requests);
  RequestOutcome outcome = Ask(*m_pSender, kDestGuid);
  EXPECT_EQ(outcome.uReturned, kHostOk);
  EXPECT_EQ(outcome.uStatus, 5U);
  EXPECT_EQ(outcome.pReply, nullptr);
  EXPECT_EQ(outcome.uLength, 0U);
  requests.fnThen = [] { throw std::runtime_error("handler"); };
  outcome = Ask(*m_pSender, kDestGuid);
  EXPECT_EQ(outcome.uReturned, kHostNoReply);
  EXPECT_EQ(outcome.pReply, nullptr);
}

TEST_P(SendTest, TakingTheRequestHandlerAwayWaitsForTheRequestInside) {
  CFakeRequests requests;
  CSignal inside;
  CSignal release;
  std::atomic<bool> bLeft{false};
  std::atomic<bool> bFirst{true};
  requests.fnThen = [&] {
    if (bFirst.exchange(false)) {
      inside.Set();
      EXPECT_TRUE(release.Wait());
      bLeft = true;
    }
  };
  m_pDest->SetRequestHandler(&requests);
  std::thread asker([&] {
    const RequestOutcome outcome = Ask(*m_pSender, kDestGuid);
    EXPECT_EQ(outcome.uReturned, kHostOk);
    EXPECT_EQ(m_pSender->FreeReply(outcome.pReply), kHostOk);
  });
  ASSERT_TRUE(inside.Wait());
  std::thread ender([&] {
    m_pDest->SetRequestHandler(nullptr);
    EXPECT_TRUE(bLeft);
  });
  for (RequestOutcome probe = Ask(*m_pSender, kDestGuid); probe.uReturned == kHostOk;
       probe = Ask(*m_pSender, kDestGuid)) {
    EXPECT_EQ(m_pSender->FreeReply(probe.pReply), kHostOk);
  }
  release.Set();
  ender.join();
  asker.join();
  EXPECT_EQ(Ask(*m_pSender, kDestGuid).uReturned, kHostNoDestination);
}

// A cancellation unwinds frames that AddressSanitizer's runtime is not told of: their guard zones stay on the stack, and
// the runtime takes its own next use of that memory for an overflow. This takes the zones of the present calls away.
void NoteThatCallsMayNotReturn() {
#ifdef __SANITIZE_ADDRESS__
  __asan_handle_no_return();
#endif
}

// A thread that is cancelled inside a request, as the component does after a minute, leaves the router usable.
TEST_P(SendTest, ACancelledThreadLeavesNoLockAndNoCallBehind) {
  CFakeRequests requests;
  CSignal inside;
  requests.fnThen = [&] {
    inside.Set();
    NoteThatCallsMayNotReturn();
    while (true) {
      ::pause();  // a cancellation point
    }
  };
  m_pDest->SetRequestHandler(&requests);
  pthread_t thread{};
  ASSERT_EQ(pthread_create(
                &thread, nullptr,
                [](void* pContext) -> void* {
                  static_cast<void>(Ask(*static_cast<IHostContext*>(pContext), kDestGuid));
                  return nullptr;
                },
                m_pSender.get()),
            0);
  ASSERT_TRUE(inside.Wait());
  ASSERT_EQ(pthread_cancel(thread), 0);
  void* pResult = nullptr;
  ASSERT_EQ(pthread_join(thread, &pResult), 0);
  EXPECT_EQ(pResult, PTHREAD_CANCELED);
  EXPECT_EQ(m_pDest->Uninitialize(), kHostOk);
  EXPECT_EQ(m_pSender->Uninitialize(), kHostOk);
}

}  // namespace
