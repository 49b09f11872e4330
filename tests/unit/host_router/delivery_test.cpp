// Messages from producers, and who may register what.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "host/protocol/combo_payload.h"
#include "host/protocol/host_status.h"
#include "tests/unit/host_router/router_fakes.h"

namespace {

constexpr uint32_t kType = 10102;

class DeliveryTest : public ::testing::Test {
 protected:
  void Make(const RouterOptions& options) {
    m_pRouter = CreateRouter(options);
    m_pContext = m_pRouter->CreateContext();
    ASSERT_EQ(m_pContext->Initialize(kDestGuid), kHostOk);
  }
  void SetUp() override { Make(RouterOptions{}); }
  void TearDown() override {
    if (m_pContext) {
      m_pContext->Uninitialize();
    }
    m_pContext.reset();
    m_pRouter.reset();
  }
  uint32_t Reply(void* pHandle, int32_t iRet = 0, std::string_view svText = {}) {
    return m_pContext->Reply(iRet, kType, svText.data(), static_cast<uint32_t>(svText.size()), pHandle);
  }

  std::unique_ptr<IRouter> m_pRouter;
  std::shared_ptr<IHostContext> m_pContext;
  CFakeReceiver m_Receiver;
  std::shared_ptr<CFakeSink> m_pSink = std::make_shared<CFakeSink>();
};

TEST_F(DeliveryTest, HandsTheMessageToItsReceiverOnTheCallingThread) {
  int iContext = 0;
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, &iContext), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk);
  ASSERT_EQ(m_Receiver.Count(), 1U);
  const SeenMessage message = m_Receiver.Items()[0];
  EXPECT_EQ(message.sender.Data1, kProducerGuid.Data1);
  EXPECT_EQ(message.i64MsgType, kType);
  EXPECT_EQ(message.strData, "data");
  EXPECT_EQ(message.pContext, &iContext);
  EXPECT_NE(message.pReplyHandle, nullptr);
  EXPECT_EQ(message.thread, std::this_thread::get_id());
}

TEST_F(DeliveryTest, AReplyDuringTheCallbackReachesTheSinkOnce) {
  m_Receiver.fnThen = [this](const SeenMessage& message) {
    EXPECT_EQ(Reply(message.pReplyHandle, 7, "text"), kHostOk);
    EXPECT_EQ(Reply(message.pReplyHandle, 8, "again"), kHostBadArgument);
  };
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink, 99), kHostOk);
  ASSERT_EQ(m_pSink->Count(), 1U);
  const SeenReply reply = m_pSink->Items()[0];
  EXPECT_EQ(reply.u64Cookie, 99U);
  EXPECT_EQ(reply.uStatus, 7U);
  EXPECT_EQ(reply.strText, "text");
}

TEST_F(DeliveryTest, AReplyMayComeLaterFromAnotherThread) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink, 5), kHostOk);
  EXPECT_EQ(m_pSink->Count(), 0U);
  void* pHandle = m_Receiver.Items()[0].pReplyHandle;
  std::thread([&] { EXPECT_EQ(Reply(pHandle, 0, "late"), kHostOk); }).join();
  ASSERT_EQ(m_pSink->Count(), 1U);
  EXPECT_EQ(m_pSink->Items()[0].strText, "late");
  EXPECT_EQ(Reply(pHandle), kHostBadArgument);
  EXPECT_EQ(m_pSink->Count(), 1U);
}

TEST_F(DeliveryTest, RacingRepliesReachTheSinkOnce) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  constexpr size_t kRounds = 200;
  for (size_t uRound = 0; uRound < kRounds; ++uRound) {
    ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink, uRound), kHostOk);
    void* pHandle = m_Receiver.Items().back().pReplyHandle;
    std::atomic<int> iTaken{0};
    const auto fnReply = [&] { iTaken += Reply(pHandle) == kHostOk ? 1 : 0; };
    std::thread other(fnReply);
    fnReply();
    other.join();
    ASSERT_EQ(iTaken, 1);
    ASSERT_EQ(m_pSink->Count(), uRound + 1);
  }
}

TEST_F(DeliveryTest, NoReplyInTimeIsToldOnceAndTheLateReplyIsRefused) {
  m_pContext.reset();
  RouterOptions options;
  options.uReplyTimeoutMs = 20;
  Make(options);
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink, 5), kHostOk);
  ASSERT_TRUE(m_pSink->WaitFor(1));
  const SeenReply reply = m_pSink->Items()[0];
  EXPECT_EQ(reply.uStatus, kHostNoReply);
  EXPECT_EQ(reply.strText, "");
  EXPECT_EQ(Reply(m_Receiver.Items()[0].pReplyHandle), kHostBadArgument);
  EXPECT_EQ(m_pSink->Count(), 1U);
}

TEST_F(DeliveryTest, EveryDeliveryHasOneOutcomeWhenRepliesRaceWithTheTimeOut) {
  m_pContext.reset();
  RouterOptions options;
  options.uReplyTimeoutMs = 1;
  Make(options);
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  constexpr size_t kMessages = 300;
  size_t uAccepted = 0;
  for (size_t uMessage = 0; uMessage < kMessages; ++uMessage) {
    ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink, uMessage), kHostOk);
    if (uMessage % 3 == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    uAccepted += Reply(m_Receiver.Items().back().pReplyHandle, 77) == kHostOk ? 1 : 0;
  }
  ASSERT_TRUE(m_pSink->WaitFor(kMessages));
  std::vector<int> vecSeen(kMessages, 0);
  size_t uAnswered = 0;
  for (const SeenReply& reply : m_pSink->Items()) {
    ++vecSeen.at(reply.u64Cookie);
    uAnswered += reply.uStatus == 77 ? 1 : 0;
  }
  EXPECT_EQ(vecSeen, std::vector<int>(kMessages, 1));
  EXPECT_EQ(uAnswered, uAccepted);
}

TEST_F(DeliveryTest, RefusesMadeUpHandles) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk);
  auto* pHandle = static_cast<char*>(m_Receiver.Items()[0].pReplyHandle);
  EXPECT_EQ(Reply(nullptr), kHostBadArgument);
  EXPECT_EQ(Reply(this), kHostBadArgument);
  EXPECT_EQ(Reply(pHandle + (uintptr_t{1} << 28)), kHostBadArgument);  // the entry's next use
  EXPECT_EQ(Reply(pHandle + 16), kHostBadArgument);                    // the next entry
  EXPECT_EQ(Reply(pHandle + 8), kHostBadArgument);                     // the other table
  EXPECT_EQ(Reply(reinterpret_cast<void*>(~uintptr_t{0})), kHostBadArgument);
  EXPECT_EQ(m_pContext->Reply(0, kType, nullptr, 3, pHandle), kHostBadArgument);
  EXPECT_EQ(m_pSink->Count(), 0U);
  EXPECT_EQ(Reply(pHandle), kHostOk);
}

TEST_F(DeliveryTest, RefusesAnotherComponentsHandle) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk);
  const auto pOther = m_pRouter->CreateContext();
  ASSERT_EQ(pOther->Initialize(kSenderGuid), kHostOk);
  EXPECT_EQ(pOther->Reply(0, kType, nullptr, 0, m_Receiver.Items()[0].pReplyHandle), kHostBadArgument);
  EXPECT_EQ(m_pSink->Count(), 0U);
  EXPECT_EQ(Reply(m_Receiver.Items()[0].pReplyHandle), kHostOk);
}

TEST_F(DeliveryTest, AnOldHandleDoesNotNameALaterMessage) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "one", m_pSink, 1), kHostOk);
  ASSERT_EQ(Reply(m_Receiver.Items()[0].pReplyHandle), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "two", m_pSink, 2), kHostOk);
  EXPECT_EQ(Reply(m_Receiver.Items()[0].pReplyHandle), kHostBadArgument);
  EXPECT_EQ(m_pSink->Count(), 1U);
  EXPECT_EQ(Reply(m_Receiver.Items()[1].pReplyHandle), kHostOk);
  EXPECT_EQ(m_pSink->Items()[1].u64Cookie, 2U);
}

TEST_F(DeliveryTest, RefusesATypeThatNobodyTakes) {
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostNoReceiver);
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(m_pContext->UnReceive(kType), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostNoReceiver);
  EXPECT_EQ(m_pSink->Count(), 0U);
}

TEST_F(DeliveryTest, RefusesTheAgentsOwnTypesEvenWhenTheyAreRegistered) {
  for (const uint32_t uType : {1000U, 20002U, 20003U}) {
    EXPECT_EQ(Deliver(*m_pRouter, uType, "data", m_pSink), kHostNotAllowed);
    ASSERT_EQ(m_pContext->Receive(uType, &m_Receiver, nullptr), kHostOk);
    EXPECT_EQ(Deliver(*m_pRouter, uType, "data", m_pSink), kHostNotAllowed);
  }
  EXPECT_EQ(m_Receiver.Count(), 0U);
  EXPECT_EQ(m_pSink->Count(), 0U);
}

TEST_F(DeliveryTest, RefusesANullSinkAndNullDataWithALength) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", nullptr), kHostBadArgument);
  EXPECT_EQ(m_pRouter->DeliverFromProducer(kProducerGuid, kType, nullptr, 1, m_pSink, 0), kHostBadArgument);
  EXPECT_EQ(m_Receiver.Count(), 0U);
}

TEST_F(DeliveryTest, AnEmptyMessageIsDelivered) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "", m_pSink), kHostOk);
  EXPECT_EQ(m_Receiver.Count(), 1U);
}

TEST_F(DeliveryTest, StopIntakeRefusesAndWaitsForTheMessageInside) {
  CSignal inside;
  CSignal release;
  m_Receiver.fnThen = [&](const SeenMessage&) {
    inside.Set();
    EXPECT_TRUE(release.Wait());
  };
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  std::thread producer([&] { EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk); });
  ASSERT_TRUE(inside.Wait());
  std::atomic<bool> bReleased{false};
  std::thread stopper([&] {
    m_pRouter->StopIntake();
    EXPECT_TRUE(bReleased);
  });
  while (Deliver(*m_pRouter, 4711, "data", m_pSink) == kHostNoReceiver) {
    std::this_thread::yield();  // until the stopper has begun
  }
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostStopping);
  bReleased = true;
  release.Set();
  stopper.join();
  producer.join();
  EXPECT_EQ(m_Receiver.Count(), 1U);
}

TEST_F(DeliveryTest, AReceiverThatThrowsHarmsNobody) {
  m_Receiver.fnThen = [this](const SeenMessage& message) {
    EXPECT_EQ(Reply(message.pReplyHandle), kHostOk);
    if (message.strData == "std") {
      throw std::runtime_error("broken");
    }
    throw 5;
  };
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "std", m_pSink), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "int", m_pSink), kHostOk);
  EXPECT_EQ(m_pSink->Count(), 2U);
}

TEST_F(DeliveryTest, ATypeBelongsToOneComponent) {
  const auto pOther = m_pRouter->CreateContext();
  ASSERT_EQ(pOther->Initialize(kSenderGuid), kHostOk);
  EXPECT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(pOther->Receive(kType, &m_Receiver, nullptr), kHostAlreadyTaken);
  EXPECT_EQ(m_pContext->UnReceive(kType), kHostOk);
  EXPECT_EQ(pOther->Receive(kType, &m_Receiver, nullptr), kHostOk);
}

TEST_F(DeliveryTest, DirectedAndBroadcastTypesMayHaveManyReceivers) {
  const auto pOther = m_pRouter->CreateContext();
  ASSERT_EQ(pOther->Initialize(kSenderGuid), kHostOk);
  for (const uint32_t uType : {1000U, 20002U, 20003U}) {
    EXPECT_EQ(m_pContext->Receive(uType, &m_Receiver, nullptr), kHostOk);
    EXPECT_EQ(pOther->Receive(uType, &m_Receiver, nullptr), kHostOk);
    EXPECT_EQ(pOther->Receive(uType, &m_Receiver, nullptr), kHostAlreadyTaken);
  }
}

TEST_F(DeliveryTest, ASecondRegistrationReplacesNothing) {
  CFakeReceiver second;
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(m_pContext->Receive(kType, &second, nullptr), kHostAlreadyTaken);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk);
  EXPECT_EQ(m_Receiver.Count(), 1U);
  EXPECT_EQ(second.Count(), 0U);
}

TEST_F(DeliveryTest, RefusesANullReceiverAndAnUnknownType) {
  EXPECT_EQ(m_pContext->Receive(kType, nullptr, nullptr), kHostBadArgument);
  EXPECT_EQ(m_pContext->UnReceive(kType), kHostBadArgument);
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  const auto pOther = m_pRouter->CreateContext();
  ASSERT_EQ(pOther->Initialize(kSenderGuid), kHostOk);
  EXPECT_EQ(pOther->UnReceive(kType), kHostBadArgument);
}

TEST_F(DeliveryTest, ReservedOperationsAreRefused) {
  EXPECT_EQ(m_pContext->Reserved4(), kHostBadArgument);
  EXPECT_EQ(m_pContext->Reserved7(), kHostBadArgument);
  EXPECT_EQ(m_pContext->Reserved8(), kHostBadArgument);
}

TEST_F(DeliveryTest, CountsAcceptedRecordsByPriorityAndRefusalsByStatus) {
  for (const uint32_t uType : {10100U, 10102U, 10113U, 10300U, 77U}) {
    ASSERT_EQ(m_pContext->Receive(uType, &m_Receiver, nullptr), kHostOk);
  }
  int32_t iAnswer = 0;
  m_Receiver.fnThen = [&](const SeenMessage& message) { EXPECT_EQ(Reply(message.pReplyHandle, iAnswer), kHostOk); };
  std::string strCombo(kComboHeaderSize, '\0');
  strCombo[4] = 11;
  ASSERT_EQ(Deliver(*m_pRouter, 10100, "data", m_pSink), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, 10102, "data", m_pSink), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, 10113, "data", m_pSink), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, 10300, strCombo, m_pSink), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, 77, "no record", m_pSink), kHostOk);
  iAnswer = 9;
  ASSERT_EQ(Deliver(*m_pRouter, 10102, "data", m_pSink), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, 10102, "data", m_pSink), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, 10103, "data", m_pSink), kHostNoReceiver);
  const IntakeCounts counts = m_pRouter->GetIntakeCounts();
  EXPECT_EQ(counts.aAccepted, (PriorityCounts{1, 1, 1, 1, 0}));
  EXPECT_EQ(counts.vecRefused, (std::vector<std::pair<uint32_t, uint64_t>>{{9, 2}, {kHostNoReceiver, 1}}));
  EXPECT_EQ(counts.u64RefusedOtherwise, 0U);
}

TEST_F(DeliveryTest, TheCountIsThereWhenTheAnswerIs) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  class CLookingSink final : public IReplySink {
   public:
    explicit CLookingSink(const IRouter& router) : m_router(router) {}
    void OnReply(uint64_t, uint32_t, std::string_view) override { u64Seen = m_router.GetIntakeCounts().aAccepted[2]; }
    uint64_t u64Seen = 0;

   private:
    const IRouter& m_router;
  };
  const auto pSink = std::make_shared<CLookingSink>(*m_pRouter);
  m_Receiver.fnThen = [this](const SeenMessage& message) { EXPECT_EQ(Reply(message.pReplyHandle), kHostOk); };
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", pSink), kHostOk);
  EXPECT_EQ(pSink->u64Seen, 1U);
}

TEST(IntakeCountersTest, StatusesBeyondThePlacesAreCountedTogether) {
  CIntakeCounters counters;
  for (uint32_t uStatus = 1; uStatus <= 40; ++uStatus) {
    counters.CountRefused(uStatus);
  }
  counters.CountRefused(1);
  const IntakeCounts counts = counters.Snapshot();
  ASSERT_EQ(counts.vecRefused.size(), 32U);
  EXPECT_EQ(counts.vecRefused.front(), (std::pair<uint32_t, uint64_t>{1, 2}));
  EXPECT_EQ(counts.u64RefusedOtherwise, 8U);
}

TEST(IntakeCountersTest, NoAdditionOfManyThreadsIsLost) {
  CIntakeCounters counters;
  std::vector<std::thread> vecThreads;
  for (uint32_t uThread = 0; uThread < 4; ++uThread) {
    vecThreads.emplace_back([&counters, uThread] {
      for (uint32_t i = 0; i < 2000; ++i) {
        counters.Count(uThread, 0);
        counters.CountRefused(1 + i % 3);
      }
    });
  }
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  const IntakeCounts counts = counters.Snapshot();
  EXPECT_EQ(counts.aAccepted, (PriorityCounts{2000, 2000, 2000, 2000, 0}));
  uint64_t u64Refused = 0;
  for (const auto& refusal : counts.vecRefused) {
    u64Refused += refusal.second;
  }
  EXPECT_EQ(counts.vecRefused.size(), 3U);
  EXPECT_EQ(u64Refused, 8000U);
}

}  // namespace
