#include "host/protocol/ingress_protocol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr GUID kSender = {0x01020304, 0x0506, 0x0708, {9, 10, 11, 12, 13, 14, 15, 16}};

// The frame without its prefix, after a check of the prefix.
std::string Body(const std::string& strFrame) {
  EXPECT_GE(strFrame.size(), kIngressPrefixSize);
  EXPECT_EQ(ReadFrameLength(strFrame.data()), strFrame.size() - kIngressPrefixSize);
  return strFrame.substr(kIngressPrefixSize);
}

std::string HelloBody() {
  std::string strFrame;
  AppendHello(strFrame);
  return Body(strFrame);
}

std::string WelcomeBody() {
  std::string strFrame;
  AppendWelcome(strFrame, {1, 4096, 7});
  return Body(strFrame);
}

std::string MessageBody(std::string_view svPayload = "payload") {
  std::string strFrame;
  AppendMessage(strFrame, {10102, 0x1122334455667788, kSender, svPayload});
  return Body(strFrame);
}

std::string AnswerBody(std::string_view svText = "success") {
  std::string strFrame;
  AppendAnswer(strFrame, {0xA0010014, 0x1122334455667788, svText});
  return Body(strFrame);
}

std::string FailureBody() {
  std::string strFrame;
  AppendFailure(strFrame, IngressFailure::Stalled, "too slow");
  return Body(strFrame);
}

bool Reads(IngressKind kind, std::string_view svFrame) {
  uint32_t uVersion = 0;
  IngressWelcome welcome;
  IngressMessage message;
  IngressAnswer answer;
  IngressFailure failure{};
  std::string_view svText;
  switch (kind) {
    case IngressKind::Hello:
      return ReadHello(svFrame, uVersion);
    case IngressKind::Welcome:
      return ReadWelcome(svFrame, welcome);
    case IngressKind::Message:
      return ReadMessage(svFrame, message);
    case IngressKind::Answer:
      return ReadAnswer(svFrame, answer);
    case IngressKind::Failure:
      return ReadFailure(svFrame, failure, svText);
  }
  return false;
}

struct KindCase {
  IngressKind kind;
  std::string strBody;
  size_t uHeaderSize;
  bool bExact;
};

std::vector<KindCase> AllKinds() {
  return {{IngressKind::Hello, HelloBody(), 12, true},
          {IngressKind::Welcome, WelcomeBody(), 20, true},
          {IngressKind::Message, MessageBody(), 32, false},
          {IngressKind::Answer, AnswerBody(), 16, false},
          {IngressKind::Failure, FailureBody(), 8, false}};
}

TEST(IngressProtocolTest, HelloComesBackAsWritten) {
  std::string strFrame;
  AppendHello(strFrame, 9);
  uint32_t uVersion = 0;
  ASSERT_TRUE(ReadHello(Body(strFrame), uVersion));
  EXPECT_EQ(uVersion, 9U);
}

TEST(IngressProtocolTest, WelcomeComesBackAsWritten) {
  IngressWelcome welcome;
  ASSERT_TRUE(ReadWelcome(WelcomeBody(), welcome));
  EXPECT_EQ(welcome.uVersion, 1U);
  EXPECT_EQ(welcome.uMaxFrame, 4096U);
  EXPECT_EQ(welcome.uWindow, 7U);
}

TEST(IngressProtocolTest, MessageComesBackAsWritten) {
  const std::string strPayload("zero \0 inside", 13);
  const std::string strBody = MessageBody(strPayload);
  IngressMessage message;
  ASSERT_TRUE(ReadMessage(strBody, message));
  EXPECT_EQ(message.uMsgType, 10102U);
  EXPECT_EQ(message.u64RequestId, 0x1122334455667788U);
  EXPECT_EQ(std::memcmp(&message.sender, &kSender, sizeof(GUID)), 0);
  EXPECT_EQ(message.svPayload, strPayload);
  EXPECT_EQ(message.svPayload.data(), strBody.data() + kIngressMessageHeaderSize);
}

TEST(IngressProtocolTest, AnswerComesBackAsWritten) {
  const std::string strBody = AnswerBody("fail");
  IngressAnswer answer;
  ASSERT_TRUE(ReadAnswer(strBody, answer));
  EXPECT_EQ(answer.uStatus, 0xA0010014U);
  EXPECT_EQ(answer.u64RequestId, 0x1122334455667788U);
  EXPECT_EQ(answer.svText, "fail");
}

TEST(IngressProtocolTest, FailureComesBackAsWritten) {
  const std::string strBody = FailureBody();
  IngressFailure failure{};
  std::string_view svText;
  ASSERT_TRUE(ReadFailure(strBody, failure, svText));
  EXPECT_EQ(failure, IngressFailure::Stalled);
  EXPECT_EQ(svText, "too slow");
}

TEST(IngressProtocolTest, EmptyPayloadsAndTextsAreWellFormed) {
  IngressMessage message;
  EXPECT_TRUE(ReadMessage(MessageBody(""), message));
  EXPECT_TRUE(message.svPayload.empty());
  IngressAnswer answer;
  EXPECT_TRUE(ReadAnswer(AnswerBody(""), answer));
  EXPECT_TRUE(answer.svText.empty());
}

TEST(IngressProtocolTest, MessageHasTheBytesOfTheProtocol) {
  std::string strFrame;
  AppendMessage(strFrame, {0x2776, 0x0807060504030201, kSender, "hi"});
  const unsigned char aExpected[] = {34,   0,    0,  0,                  // length
                                     3,    0,    0,  0,                  // kind
                                     0x76, 0x27, 0,  0,                  // type
                                     1,    2,    3,  4,  5,  6,  7,  8,  // request id
                                     4,    3,    2,  1,  6,  5,  8,  7,  // sender
                                     9,    10,   11, 12, 13, 14, 15, 16, 'h', 'i'};
  ASSERT_EQ(strFrame.size(), sizeof(aExpected));
  EXPECT_EQ(std::memcmp(strFrame.data(), aExpected, sizeof(aExpected)), 0);
}

TEST(IngressProtocolTest, WritersAppend) {
  std::string strOut = "before";
  AppendHello(strOut);
  EXPECT_EQ(strOut.substr(0, 6), "before");
  EXPECT_EQ(strOut.size(), 6 + kIngressPrefixSize + kIngressHelloSize);
}

TEST(IngressProtocolTest, FramesTruncatedAtAnyByteAreRefused) {
  for (const KindCase& kindCase : AllKinds()) {
    ASSERT_TRUE(Reads(kindCase.kind, kindCase.strBody));
    const size_t uNeeded = kindCase.bExact ? kindCase.strBody.size() : kindCase.uHeaderSize;
    for (size_t uSize = 0; uSize < uNeeded; ++uSize) {
      // A copy of its own: a read past the end is then seen by the sanitizers.
      const std::string strCut(kindCase.strBody.data(), uSize);
      EXPECT_FALSE(Reads(kindCase.kind, strCut)) << "kind " << int(kindCase.kind) << " cut to " << uSize;
    }
  }
}

TEST(IngressProtocolTest, HelloAndWelcomeMayNotBeLonger) {
  EXPECT_FALSE(Reads(IngressKind::Hello, HelloBody() + '\0'));
  EXPECT_FALSE(Reads(IngressKind::Welcome, WelcomeBody() + '\0'));
}

TEST(IngressProtocolTest, ReservedBytesMustBeZero) {
  for (const KindCase& kindCase : AllKinds()) {
    for (size_t uAt = 1; uAt <= 3; ++uAt) {
      std::string strBody = kindCase.strBody;
      strBody[uAt] = 1;
      EXPECT_FALSE(Reads(kindCase.kind, strBody)) << "kind " << int(kindCase.kind) << " byte " << uAt;
    }
  }
}

TEST(IngressProtocolTest, AFrameOfOneKindIsNoneOfAnother) {
  for (const KindCase& kindCase : AllKinds()) {
    for (const KindCase& other : AllKinds()) {
      if (kindCase.kind != other.kind) {
        std::string strBody = other.strBody;
        strBody.resize(kindCase.strBody.size());
        EXPECT_FALSE(Reads(kindCase.kind, strBody));
      }
    }
  }
}

TEST(IngressProtocolTest, TheMagicMustBeRight) {
  for (size_t uAt = 4; uAt < 8; ++uAt) {
    std::string strHello = HelloBody();
    strHello[uAt] = 'x';
    EXPECT_FALSE(Reads(IngressKind::Hello, strHello));
    std::string strWelcome = WelcomeBody();
    strWelcome[uAt] = 'x';
    EXPECT_FALSE(Reads(IngressKind::Welcome, strWelcome));
  }
}

TEST(IngressProtocolTest, LengthsAreUnsignedAndLittleEndian) {
  EXPECT_EQ(ReadFrameLength("\xFF\xFF\xFF\xFF"), 0xFFFFFFFFU);
  EXPECT_EQ(ReadFrameLength("\x01\x02\x03\x84"), 0x84030201U);
}

}  // namespace
