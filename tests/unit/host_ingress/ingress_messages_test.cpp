// What a well-behaved producer gets.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "host/ingress/answer_box.h"
#include "host/protocol/host_status.h"
#include "tests/unit/host_ingress/ingress_fixture.h"

namespace {

class IngressMessagesTest : public IngressTest {};

TEST_F(IngressMessagesTest, WelcomesWithItsLimits) {
  m_options.uMaxFrame = 5000;
  m_options.uWindow = 17;
  Serve();
  const CTestProducer producer(Path());
  EXPECT_EQ(producer.Welcome().uVersion, kIngressVersion);
  EXPECT_EQ(producer.Welcome().uMaxFrame, 5000U);
  EXPECT_EQ(producer.Welcome().uWindow, 17U);
}

TEST_F(IngressMessagesTest, DeliversAMessageAsItWasSent) {
  Serve();
  CTestProducer producer(Path());
  const GUID sender = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
  const std::string strPayload("with \0 zero", 11);
  std::string strFrame;
  AppendMessage(strFrame, {10203, 0xFFFFFFFFFFFFFFFF, sender, strPayload});
  ASSERT_TRUE(producer.SendBytes(strFrame));
  const auto strAnswer = producer.ReadFrame();
  IngressAnswer answer;
  ASSERT_TRUE(strAnswer && ReadAnswer(*strAnswer, answer));
  EXPECT_EQ(answer.uStatus, 0U);
  EXPECT_EQ(answer.u64RequestId, 0xFFFFFFFFFFFFFFFFU);
  EXPECT_EQ(answer.svText, "success");
  const auto vecDeliveries = m_pRouter->Deliveries();
  ASSERT_EQ(vecDeliveries.size(), 1U);
  EXPECT_EQ(vecDeliveries[0].uMsgType, 10203U);
  EXPECT_EQ(vecDeliveries[0].strPayload, strPayload);
  EXPECT_EQ(std::memcmp(&vecDeliveries[0].sender, &sender, sizeof(GUID)), 0);
}

TEST_F(IngressMessagesTest, TakesBytesInAnyPieces) {
  Serve();
  CTestProducer producer(Path(), false);
  std::string strBytes;
  AppendHello(strBytes);
  AppendMessage(strBytes, {10101, 1, GUID{}, "one"});
  AppendMessage(strBytes, {10101, 2, GUID{}, "two"});
  for (const char c : strBytes) {
    ASSERT_TRUE(producer.SendBytes(std::string_view(&c, 1)));
  }
  IngressWelcome welcome;
  const auto strWelcome = producer.ReadFrame();
  ASSERT_TRUE(strWelcome && ReadWelcome(*strWelcome, welcome));
  EXPECT_EQ(producer.ReadAnswers(2).size(), 2U);
}

TEST_F(IngressMessagesTest, KeepsTheOrderOfAConnection) {
  Serve();
  CTestProducer producer(Path());
  constexpr size_t kCount = 5000;
  std::string strBytes;
  for (size_t i = 0; i < kCount; ++i) {
    AppendMessage(strBytes, {10101, i, GUID{}, std::to_string(i)});
  }
  std::thread sender([&] { EXPECT_TRUE(producer.SendBytes(strBytes)); });
  EXPECT_EQ(producer.ReadAnswers(kCount).size(), kCount);
  sender.join();
  const auto vecDeliveries = m_pRouter->Deliveries();
  ASSERT_EQ(vecDeliveries.size(), kCount);
  for (size_t i = 0; i < kCount; ++i) {
    ASSERT_EQ(vecDeliveries[i].strPayload, std::to_string(i));
  }
}

TEST_F(IngressMessagesTest, AnswersComeInTheOrderOfTheReplies) {
  Serve([](const Delivery&) { return 0U; });
  CTestProducer producer(Path());
  for (uint64_t i = 1; i <= 3; ++i) {
    ASSERT_TRUE(producer.SendMessage(i, "x"));
  }
  ASSERT_TRUE(m_pRouter->WaitForCount(3));
  const auto vecDeliveries = m_pRouter->Deliveries();
  for (const size_t uAt : {2U, 0U, 1U}) {
    vecDeliveries[uAt].Reply(static_cast<uint32_t>(100 + uAt), "text");
    const auto strFrame = producer.ReadFrame();
    IngressAnswer answer;
    ASSERT_TRUE(strFrame && ReadAnswer(*strFrame, answer));
    EXPECT_EQ(answer.u64RequestId, uAt + 1);
    EXPECT_EQ(answer.uStatus, 100 + uAt);
    EXPECT_EQ(answer.svText, "text");
  }
}

TEST_F(IngressMessagesTest, RepliesOfManyThreadsAllArrive) {
  constexpr size_t kCount = 900;
  Serve([](const Delivery&) { return 0U; });
  CTestProducer producer(Path());
  for (uint64_t i = 0; i < kCount; ++i) {
    ASSERT_TRUE(producer.SendMessage(i, "x"));
  }
  ASSERT_TRUE(m_pRouter->WaitForCount(kCount));
  const auto vecDeliveries = m_pRouter->Deliveries();
  std::atomic<size_t> uNext{0};
  std::vector<std::thread> vecThreads;
  for (int i = 0; i < 4; ++i) {
    vecThreads.emplace_back([&] {
      for (size_t uAt = uNext++; uAt < kCount; uAt = uNext++) {
        vecDeliveries[uAt].Reply();
      }
    });
  }
  EXPECT_EQ(producer.ReadAnswers(kCount).size(), kCount);
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
}

TEST_F(IngressMessagesTest, AMessageTheRouterRefusesIsAnsweredWithItsStatus) {
  Serve([](const Delivery& delivery) {
    if (delivery.strPayload == "bad") {
      return kHostNotAllowed;
    }
    delivery.Reply();
    return kHostOk;
  });
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "bad"));
  ASSERT_TRUE(producer.SendMessage(2, "good"));
  const auto mapAnswers = producer.ReadAnswers(2);
  EXPECT_EQ(mapAnswers.at(1), kHostNotAllowed);
  EXPECT_EQ(mapAnswers.at(2), kHostOk);
}

TEST_F(IngressMessagesTest, TakesAFrameOfExactlyTheLimit) {
  m_options.uMaxFrame = 3U << 20;
  Serve();
  CTestProducer producer(Path());
  const std::string strPayload(m_options.uMaxFrame - kIngressMessageHeaderSize, 'p');
  ASSERT_TRUE(producer.SendMessage(1, strPayload));
  ASSERT_TRUE(producer.SendMessage(2, "small"));
  EXPECT_EQ(producer.ReadAnswers(2).size(), 2U);
  const auto vecDeliveries = m_pRouter->Deliveries();
  ASSERT_EQ(vecDeliveries.size(), 2U);
  EXPECT_EQ(vecDeliveries[0].strPayload, strPayload);
  EXPECT_EQ(vecDeliveries[1].strPayload, "small");
}

TEST_F(IngressMessagesTest, AnswersWhatCameBeforeTheProducerEndedItsOutput) {
  Serve([](const Delivery&) { return 0U; });
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "x"));
  producer.EndOutput();
  ASSERT_TRUE(m_pRouter->WaitForCount(1));
  m_pRouter->Deliveries()[0].Reply();
  EXPECT_EQ(producer.ReadAnswers(1).size(), 1U);
  EXPECT_TRUE(producer.ReadEnd());
}

TEST_F(IngressMessagesTest, ManyProducersAreServedAtOnce) {
  Serve();
  static constexpr int kProducers = 16;
  static constexpr uint64_t kCount = 500;
  std::vector<std::thread> vecThreads;
  for (int i = 0; i < kProducers; ++i) {
    vecThreads.emplace_back([this] {
      CTestProducer producer(Path());
      for (uint64_t u64Id = 0; u64Id < kCount; ++u64Id) {
        ASSERT_TRUE(producer.SendMessage(u64Id, "record"));
      }
      EXPECT_EQ(producer.ReadAnswers(kCount).size(), kCount);
    });
  }
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  EXPECT_EQ(m_pRouter->Deliveries().size(), kProducers * kCount);
}

// A component that takes its time with each message, and with the first and the last one until the test lets them go.
class IngressSlowComponentTest : public IngressTest {
 protected:
  static constexpr size_t kMessages = 200;  // fewer than a turn may take

  void ServeSlowly() {
    m_options.uThreads = 1;
    Serve([this](const Delivery& delivery) {
      if (delivery.u64Cookie == 0) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::seconds(30), [this] { return m_bBegin; });
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      if (delivery.u64Cookie == kMessages - 1) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_bInTime = m_changed.wait_for(lock, std::chrono::seconds(30), [this] { return m_bGoOn; });
      }
      delivery.Reply();
      return 0U;
    });
  }
  void LetTheFirstOneGo() { Set(m_bBegin); }
  void LetTheLastOneGo() { Set(m_bGoOn); }
  void Set(bool& bFlag) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    bFlag = true;
    m_changed.notify_all();
  }
  static std::string AllMessages() {
    std::string strBytes;
    for (size_t i = 0; i < kMessages; ++i) {
      AppendMessage(strBytes, {10101, i, GUID{}, "x"});
    }
    return strBytes;
  }

  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_bBegin = false;
  bool m_bGoOn = false;
  std::atomic<bool> m_bInTime = false;
};

TEST_F(IngressSlowComponentTest, HoldsUpNoOtherProducersWelcome) {
  ServeSlowly();
  CTestProducer busy(Path());
  ASSERT_TRUE(busy.SendBytes(AllMessages()));
  ASSERT_TRUE(m_pRouter->WaitForCount(1));
  CTestProducer other(Path(), false);
  std::string strHello;
  AppendHello(strHello);
  ASSERT_TRUE(other.SendBytes(strHello));
  LetTheFirstOneGo();
  EXPECT_TRUE(other.ReadFrame().has_value());
  LetTheLastOneGo();
  EXPECT_EQ(busy.ReadAnswers(kMessages).size(), kMessages);
  EXPECT_TRUE(m_bInTime);
}

TEST_F(IngressSlowComponentTest, HoldsUpNoAnswerThatIsReady) {
  ServeSlowly();
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendBytes(AllMessages()));
  LetTheFirstOneGo();
  EXPECT_EQ(producer.ReadAnswers(1).size(), 1U);
  LetTheLastOneGo();
  EXPECT_EQ(producer.ReadAnswers(kMessages - 1).size(), kMessages - 1);
  EXPECT_TRUE(m_bInTime);
}

TEST_F(IngressMessagesTest, LongAnswerTextsAreCut) {
  Serve([](const Delivery& delivery) {
    delivery.Reply(0, std::string(kMaxAnswerText + 1, 't'));
    return 0U;
  });
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "x"));
  const auto strFrame = producer.ReadFrame();
  IngressAnswer answer;
  ASSERT_TRUE(strFrame && ReadAnswer(*strFrame, answer));
  EXPECT_EQ(answer.svText, std::string(kMaxAnswerText, 't'));
}

TEST_F(IngressMessagesTest, AReplyAfterTheConnectionHasGoneIsDropped) {
  Serve([](const Delivery&) { return 0U; });
  {
    CTestProducer producer(Path());
    ASSERT_TRUE(producer.SendMessage(1, "x"));
    ASSERT_TRUE(m_pRouter->WaitForCount(1));
  }
  const auto vecLate = m_pRouter->Deliveries();
  vecLate[0].Reply();
  CTestProducer other(Path());
  ASSERT_TRUE(other.SendMessage(2, "y"));
  ASSERT_TRUE(m_pRouter->WaitForCount(2));
  m_pRouter->Deliveries()[1].Reply();
  EXPECT_EQ(other.ReadAnswers(1).count(2), 1U);
}

// The producer reads nothing, so answers fill the socket and the host stops reading; then it reads everything.
TEST_F(IngressMessagesTest, AProducerThatReadsLateGetsEveryAnswer) {
  Serve([](const Delivery& delivery) {
    delivery.Reply(0, std::string(kMaxAnswerText, 't'));
    return 0U;
  });
  CTestProducer producer(Path());
  constexpr size_t kCount = 2000;
  std::string strBytes;
  for (size_t i = 0; i < kCount; ++i) {
    AppendMessage(strBytes, {10101, i, GUID{}, std::string(500, 'p')});
  }
  std::thread sender([&] { EXPECT_TRUE(producer.SendBytes(strBytes)); });
  // So many answers fit nowhere between host and producer: had the host read on, it would hold them all.
  ASSERT_TRUE(m_pRouter->WaitForCount(200));
  EXPECT_EQ(producer.ReadAnswers(kCount).size(), kCount);
  sender.join();
}

}  // namespace
