// The ends: UnReceive, Uninitialize, and what outlives what.
#include <gtest/gtest.h>

#include <atomic>

#include "host/protocol/host_status.h"
#include "tests/unit/host_router/router_fakes.h"

namespace {

constexpr uint32_t kType = 10102;
constexpr uint32_t kOtherType = 10103;

class LifetimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_pRouter = CreateRouter(RouterOptions{});
    m_pContext = m_pRouter->CreateContext();
    ASSERT_EQ(m_pContext->Initialize(kDestGuid), kHostOk);
  }
  void TearDown() override {
    m_pContext->Uninitialize();
    m_pContext.reset();
    m_pRouter.reset();
  }
  // A producer's message is inside the receiver while fnEnd runs on another thread; fnEnd must not return before the
  // receiver has.
  template <typename TEnd>
  void ExpectToWait(const TEnd& fnEnd) {
    CSignal inside;
    CSignal release;
    std::atomic<bool> bFirst{true};
    std::atomic<bool> bLeft{false};
    m_Receiver.fnThen = [&](const SeenMessage&) {
      if (bFirst.exchange(false)) {
        inside.Set();
        EXPECT_TRUE(release.Wait());
        bLeft = true;
      }
    };
    ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
    std::thread producer([&] { EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk); });
    EXPECT_TRUE(inside.Wait());
    std::thread ender([&] {
      fnEnd();
      EXPECT_TRUE(bLeft);
    });
    while (Deliver(*m_pRouter, kType, "data", m_pSink) != kHostNoReceiver) {
      std::this_thread::yield();  // until the ender has begun
    }
    release.Set();
    ender.join();
    producer.join();
  }

  std::unique_ptr<IRouter> m_pRouter;
  std::shared_ptr<IHostContext> m_pContext;
  CFakeReceiver m_Receiver;
  std::shared_ptr<CFakeSink> m_pSink = std::make_shared<CFakeSink>();
};

TEST_F(LifetimeTest, NamesAComponentOnce) {
  const auto pOther = m_pRouter->CreateContext();
  EXPECT_EQ(pOther->Initialize(kDestGuid), kHostAlreadyTaken);
  EXPECT_EQ(m_pContext->Initialize(kSenderGuid), kHostAlreadyTaken);
  EXPECT_EQ(pOther->Initialize(GUID{}), kHostBadArgument);
  EXPECT_EQ(m_pContext->Uninitialize(), kHostOk);
  EXPECT_EQ(pOther->Initialize(kDestGuid), kHostOk);
  EXPECT_EQ(pOther->Uninitialize(), kHostOk);
  EXPECT_EQ(m_pContext->Initialize(kDestGuid), kHostOk);
}

TEST_F(LifetimeTest, AContextWithoutANameIsRefused) {
  const auto pOther = m_pRouter->CreateContext();
  EXPECT_EQ(pOther->Receive(kType, &m_Receiver, nullptr), kHostBadArgument);
  EXPECT_EQ(Send(*pOther, kDestGuid, kType, "data", nullptr), kHostBadArgument);
  EXPECT_EQ(pOther->Uninitialize(), kHostBadArgument);
  ASSERT_EQ(pOther->Initialize(kSenderGuid), kHostOk);
  ASSERT_EQ(pOther->Uninitialize(), kHostOk);
  EXPECT_EQ(pOther->Receive(kType, &m_Receiver, nullptr), kHostStopping);
  EXPECT_EQ(Send(*pOther, kDestGuid, kType, "data", nullptr), kHostStopping);
}

TEST_F(LifetimeTest, UnReceiveWaitsForACallbackOnAnotherThread) {
  ExpectToWait([this] { EXPECT_EQ(m_pContext->UnReceive(kType), kHostOk); });
}

TEST_F(LifetimeTest, UninitializeWaitsForACallbackOnAnotherThread) {
  ExpectToWait([this] { EXPECT_EQ(m_pContext->Uninitialize(), kHostOk); });
}

TEST_F(LifetimeTest, UninitializeWaitsForACallbackThatHasEndedItsOwnRegistration) {
  CSignal inside;
  CSignal release;
  std::atomic<bool> bLeft{false};
  m_Receiver.fnThen = [&](const SeenMessage&) {
    EXPECT_EQ(m_pContext->UnReceive(kType), kHostOk);
    inside.Set();
    EXPECT_TRUE(release.Wait());
    bLeft = true;
  };
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  std::thread producer([&] { EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk); });
  ASSERT_TRUE(inside.Wait());
  std::thread ender([&] {
    EXPECT_EQ(m_pContext->Uninitialize(), kHostOk);
    EXPECT_TRUE(bLeft);
  });
  while (m_pContext->Receive(kType, &m_Receiver, nullptr) != kHostStopping) {
    static_cast<void>(m_pContext->UnReceive(kType));
  }
  release.Set();
  ender.join();
  producer.join();
}

TEST_F(LifetimeTest, UnReceiveInsideTheCallbackDoesNotWaitForItself) {
  CSignal done;
  m_Receiver.fnThen = [&](const SeenMessage& message) {
    EXPECT_EQ(m_pContext->UnReceive(kType), kHostOk);
    EXPECT_EQ(m_pContext->Reply(0, kType, nullptr, 0, message.pReplyHandle), kHostOk);
    done.Set();
  };
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk);
  EXPECT_TRUE(done.IsSet());
  EXPECT_EQ(m_pSink->Count(), 1U);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostNoReceiver);
}

TEST_F(LifetimeTest, UnReceiveInsideNestedCallbacksWaitsForNoneOfThem) {
  int iDepth = 0;
  m_Receiver.fnThen = [&](const SeenMessage&) {
    if (++iDepth < 3) {
      EXPECT_EQ(Deliver(*m_pRouter, kType, "nested", m_pSink), kHostOk);
    } else {
      EXPECT_EQ(m_pContext->UnReceive(kType), kHostOk);
    }
  };
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk);
  EXPECT_EQ(iDepth, 3);
}

TEST_F(LifetimeTest, UninitializeInsideACallbackDoesNotWaitForItself) {
  m_Receiver.fnThen = [&](const SeenMessage& message) {
    EXPECT_EQ(m_pContext->Uninitialize(), kHostOk);
    EXPECT_EQ(m_pContext->Reply(0, kType, nullptr, 0, message.pReplyHandle), kHostStopping);
  };
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk);
  ASSERT_EQ(m_pSink->Count(), 1U);
  EXPECT_EQ(m_pSink->Items()[0].uStatus, kHostNoReply);
}

TEST_F(LifetimeTest, NoCallbackBeginsAfterUnReceiveHasReturned) {
  std::atomic<bool> bRegistered{false};
  std::atomic<bool> bStop{false};
  m_Receiver.fnThen = [&](const SeenMessage&) { EXPECT_TRUE(bRegistered); };
  std::thread producer([&] {
    while (!bStop) {
      static_cast<void>(Deliver(*m_pRouter, kType, "data", m_pSink));
    }
  });
  constexpr int kRounds = 300;
  for (int iRound = 0; iRound < kRounds; ++iRound) {
    bRegistered = true;
    ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
    ASSERT_EQ(m_pContext->UnReceive(kType), kHostOk);
    bRegistered = false;
  }
  bStop = true;
  producer.join();
}

TEST_F(LifetimeTest, UninitializeRemovesEveryRegistration) {
  for (const uint32_t uType : {kType, kOtherType, 20002U}) {
    ASSERT_EQ(m_pContext->Receive(uType, &m_Receiver, nullptr), kHostOk);
  }
  const auto pOther = m_pRouter->CreateContext();
  ASSERT_EQ(pOther->Initialize(kSenderGuid), kHostOk);
  ASSERT_EQ(m_pContext->Uninitialize(), kHostOk);
  EXPECT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostNoReceiver);
  EXPECT_EQ(Deliver(*m_pRouter, kOtherType, "data", m_pSink), kHostNoReceiver);
  EXPECT_EQ(Send(*pOther, kDestGuid, 20002, "data", nullptr), kHostNoDestination);
  EXPECT_EQ(pOther->Receive(kType, &m_Receiver, nullptr), kHostOk);
}

TEST_F(LifetimeTest, UninitializeAnswersTheProducersThatStillWait) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink, 8), kHostOk);
  ASSERT_EQ(m_pContext->Uninitialize(), kHostOk);
  ASSERT_EQ(m_pSink->Count(), 1U);
  EXPECT_EQ(m_pSink->Items()[0].uStatus, kHostNoReply);
  EXPECT_EQ(m_pContext->Reply(0, kType, nullptr, 0, m_Receiver.Items()[0].pReplyHandle), kHostStopping);
  EXPECT_EQ(m_pSink->Count(), 1U);
}

TEST_F(LifetimeTest, AHandleFromBeforeARestartIsForeign) {
  ASSERT_EQ(m_pContext->Receive(kType, &m_Receiver, nullptr), kHostOk);
  ASSERT_EQ(Deliver(*m_pRouter, kType, "data", m_pSink), kHostOk);
  ASSERT_EQ(m_pContext->Uninitialize(), kHostOk);
  ASSERT_EQ(m_pContext->Initialize(kDestGuid), kHostOk);
  EXPECT_EQ(m_pContext->Reply(0, kType, nullptr, 0, m_Receiver.Items()[0].pReplyHandle), kHostBadArgument);
}

TEST_F(LifetimeTest, AContextOutlivesItsRouter) {
  const auto pOther = m_pRouter->CreateContext();
  ASSERT_EQ(pOther->Initialize(kSenderGuid), kHostOk);
  ASSERT_EQ(m_pContext->Receive(20002, &m_Receiver, nullptr), kHostOk);
  m_pRouter.reset();
  CFakeCompletion completion;
  EXPECT_EQ(Send(*pOther, kDestGuid, 20002, "data", &completion), kHostStopping);
  EXPECT_EQ(pOther->Broadcast(1000, "data"), kHostStopping);
  EXPECT_EQ(pOther->Uninitialize(), kHostOk);
  EXPECT_EQ(completion.Count(), 0U);
}

}  // namespace
