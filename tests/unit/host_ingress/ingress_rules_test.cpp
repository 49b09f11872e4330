// What a producer that breaks the rules gets, and that the others do not notice.
#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "tests/unit/host_ingress/ingress_fixture.h"

namespace {

class IngressRulesTest : public IngressTest {
 protected:
  void ExpectStillServes(CTestProducer& other, uint64_t u64RequestId) {
    ASSERT_TRUE(other.SendMessage(u64RequestId, "still here"));
    EXPECT_EQ(other.ReadAnswers(1).count(u64RequestId), 1U);
  }

  // After a hello, unless the bytes are to be the first ones.
  void ExpectFailure(IngressFailure expected, std::string_view svBytes, bool bHello = true) {
    CTestProducer producer(Path(), bHello);
    producer.SendBytes(svBytes);
    EXPECT_EQ(producer.ReadUntilFailure(), expected);
  }
};

std::string Prefix(uint32_t uLength) {
  return {reinterpret_cast<const char*>(&uLength), sizeof(uLength)};
}

TEST_F(IngressRulesTest, TheFirstFrameMustBeAHello) {
  Serve();
  CTestProducer other(Path());
  std::string strMessage;
  AppendMessage(strMessage, {10101, 1, GUID{}, "too early"});
  ExpectFailure(IngressFailure::Malformed, strMessage, false);
  ExpectFailure(IngressFailure::Malformed, Prefix(0xFFFFFFFF), false);
  ExpectFailure(IngressFailure::Malformed, Prefix(0), false);
  ExpectFailure(IngressFailure::Malformed, Prefix(12).append(12, 'x'), false);
  ExpectFailure(IngressFailure::Malformed, "GET / HTTP/1.1\r\n\r\n", false);
  EXPECT_TRUE(m_pRouter->Deliveries().empty());
  ExpectStillServes(other, 1);
}

TEST_F(IngressRulesTest, AnotherVersionIsRefused) {
  Serve();
  std::string strHello;
  AppendHello(strHello, 2);
  ExpectFailure(IngressFailure::Version, strHello, false);
}

TEST_F(IngressRulesTest, FramesTooShortForAMessageAreMalformed) {
  Serve();
  CTestProducer other(Path());
  for (const uint32_t uLength : {0U, 1U, 31U}) {
    ExpectFailure(IngressFailure::Malformed, Prefix(uLength).append("\x03").append(31, '\0'));
  }
  EXPECT_TRUE(m_pRouter->Deliveries().empty());
  ExpectStillServes(other, 1);
}

TEST_F(IngressRulesTest, OnlyMessagesMayFollowTheHello) {
  Serve();
  std::string strHello;
  AppendHello(strHello);
  ExpectFailure(IngressFailure::Malformed, strHello);
  std::string strAnswer;
  AppendAnswer(strAnswer, {0, 1, std::string(32, 'x')});
  ExpectFailure(IngressFailure::Malformed, strAnswer);
}

TEST_F(IngressRulesTest, AFrameLongerThanTheLimitIsRefusedByItsPrefix) {
  m_options.uMaxFrame = 1000;
  Serve();
  CTestProducer other(Path());
  ExpectFailure(IngressFailure::TooLong, Prefix(1001));
  ExpectFailure(IngressFailure::TooLong, Prefix(0xFFFFFFFF));
  ExpectStillServes(other, 1);
}

TEST_F(IngressRulesTest, WhatCameBeforeABrokenFrameIsAnsweredFirst) {
  Serve();
  CTestProducer producer(Path());
  std::string strBytes;
  AppendMessage(strBytes, {10101, 7, GUID{}, "good"});
  ASSERT_TRUE(producer.SendBytes(strBytes + Prefix(1) + "x"));
  EXPECT_EQ(producer.ReadAnswers(1).count(7), 1U);
  EXPECT_EQ(producer.ReadUntilFailure(), IngressFailure::Malformed);
}

TEST_F(IngressRulesTest, MoreUnansweredMessagesThanTheWindowCloseTheConnection) {
  m_options.uWindow = 4;
  Serve([](const Delivery&) { return 0U; });
  CTestProducer producer(Path());
  for (uint64_t i = 0; i < 5; ++i) {
    producer.SendMessage(i, "x");
  }
  EXPECT_EQ(producer.ReadUntilFailure(), IngressFailure::WindowFull);
  EXPECT_EQ(m_pRouter->Deliveries().size(), 4U);
}

TEST_F(IngressRulesTest, AFullWindowIsNoOffence) {
  m_options.uWindow = 4;
  Serve([](const Delivery&) { return 0U; });
  CTestProducer producer(Path());
  for (uint64_t uRound = 0; uRound < 3; ++uRound) {
    for (uint64_t i = 0; i < 4; ++i) {
      ASSERT_TRUE(producer.SendMessage(uRound * 4 + i, "x"));
    }
    ASSERT_TRUE(m_pRouter->WaitForCount(uRound * 4 + 4));
    const auto vecDeliveries = m_pRouter->Deliveries();
    for (size_t i = uRound * 4; i < vecDeliveries.size(); ++i) {
      vecDeliveries[i].Reply();
    }
    EXPECT_EQ(producer.ReadAnswers(4).size(), 4U);
  }
}

TEST_F(IngressRulesTest, AHalfFrameEndsItsOwnConnectionOnly) {
  m_options.uStallTimeoutMs = 1500;
  Serve();
  CTestProducer other(Path());
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendBytes(Prefix(40) + "\x03"));
  EXPECT_EQ(producer.ReadUntilFailure(), IngressFailure::Stalled);
  ExpectStillServes(other, 1);
}

TEST_F(IngressRulesTest, AFrameThatTricklesInIsStalledAllTheSame) {
  m_options.uStallTimeoutMs = 1500;
  Serve();
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendBytes(Prefix(1U << 20) + "\x03"));
  while (producer.SendBytes("x")) {
    ::usleep(1000);
  }
  EXPECT_EQ(producer.ReadUntilFailure(), IngressFailure::Stalled);
}

TEST_F(IngressRulesTest, TheHelloMustComeInTime) {
  m_options.uStallTimeoutMs = 1500;
  Serve();
  CTestProducer silent(Path(), false);
  EXPECT_EQ(silent.ReadUntilFailure(), IngressFailure::Stalled);
}

TEST_F(IngressRulesTest, AnIdleProducerIsLeftAlone) {
  m_options.uStallTimeoutMs = 1500;
  Serve();
  CTestProducer idle(Path());
  ExpectStillServes(idle, 1);
  CTestProducer silent(Path(), false);
  // The silent one is closed for its time; the idle one has been silent just as long.
  EXPECT_EQ(silent.ReadUntilFailure(), IngressFailure::Stalled);
  ExpectStillServes(idle, 2);
}

TEST_F(IngressRulesTest, AProducerThatNeverReadsItsAnswersIsClosed) {
  m_options.uStallTimeoutMs = 1500;
  Serve([](const Delivery& delivery) {
    delivery.Reply(0, std::string(4096, 't'));
    return 0U;
  });
  CTestProducer other(Path());
  CTestProducer producer(Path());
  uint64_t u64Sent = 0;
  while (producer.SendMessage(u64Sent, "x")) {
    ++u64Sent;
  }
  // With nothing read, the host stopped taking messages long before it closed the connection.
  EXPECT_LT(m_pRouter->Deliveries().size(), 5000U);
  ASSERT_TRUE(other.SendMessage(1, "y"));
  EXPECT_TRUE(other.ReadFrame().has_value());
}

TEST_F(IngressRulesTest, AnErrorInADeliveryEndsItsOwnConnectionOnly) {
  Serve([](const Delivery& delivery) -> uint32_t {
    if (delivery.strPayload == "throw") {
      throw std::runtime_error("thrown by the test");
    }
    delivery.Reply();
    return 0;
  });
  CTestProducer other(Path());
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "throw"));
  EXPECT_TRUE(producer.ReadEnd());
  ExpectStillServes(other, 1);
}

TEST_F(IngressRulesTest, ConnectionsBeyondTheLimitAreClosedAtOnce) {
  m_options.uMaxConnections = 2;
  Serve();
  CTestProducer first(Path());
  {
    CTestProducer second(Path());
    CTestProducer third(Path(), false);
    EXPECT_TRUE(third.ReadEnd());
    ExpectStillServes(second, 1);
  }
  ExpectStillServes(first, 2);
}

TEST_F(IngressRulesTest, APlaceIsFreeAgainWhenAConnectionEnds) {
  m_options.uMaxConnections = 1;
  Serve();
  {
    CTestProducer first(Path());
    first.EndOutput();
    EXPECT_TRUE(first.ReadEnd());
  }
  CTestProducer second(Path());
  ExpectStillServes(second, 1);
}

long ResidentKilobytes() {
  std::ifstream status("/proc/self/status");
  std::string strWord;
  while (status >> strWord) {
    if (strWord == "VmRSS:") {
      long lKilobytes = 0;
      status >> lKilobytes;
      return lKilobytes;
    }
  }
  return 0;
}

TEST_F(IngressRulesTest, AnnouncedLongFramesCostNothing) {
  m_options.uMaxFrame = 16U << 20;
  Serve();
  constexpr int kProducers = 300;
  std::vector<std::unique_ptr<CTestProducer>> vecProducers;
  CTestProducer other(Path());
  const long lBefore = ResidentKilobytes();
  for (int i = 0; i < kProducers; ++i) {
    vecProducers.push_back(std::make_unique<CTestProducer>(Path()));
    ASSERT_TRUE(vecProducers.back()->SendBytes(Prefix(16U << 20) + "\x03"));
  }
  ExpectStillServes(other, 1);
  // 16 MiB each would be 4.8 GB.
  EXPECT_LT(ResidentKilobytes() - lBefore, 256L * 1024);
}

}  // namespace
