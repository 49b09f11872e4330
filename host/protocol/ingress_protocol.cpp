#include "host/protocol/ingress_protocol.h"

#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "integers are copied as they stand in memory");

namespace {

constexpr char kMagic[4] = {'Q', 'M', 'I', 'N'};
constexpr size_t kFailureHeaderSize = 8;
constexpr size_t kWelcomeSize = 20;

template <typename T>
void Put(char* pAt, T value) {
  std::memcpy(pAt, &value, sizeof(value));
}

template <typename T>
T Get(const char* pAt) {
  T value;
  std::memcpy(&value, pAt, sizeof(value));
  return value;
}

// A frame's first bytes with its prefix; what is not set afterwards is zero.
template <size_t uHeaderSize>
struct FrameHead {
  char aBytes[kIngressPrefixSize + uHeaderSize] = {};

  FrameHead(IngressKind kind, size_t uTailSize) {
    Put(aBytes, static_cast<uint32_t>(uHeaderSize + uTailSize));
    Put(At(0), static_cast<uint8_t>(kind));
  }
  char* At(size_t uOffset) { return aBytes + kIngressPrefixSize + uOffset; }
  void AppendTo(std::string& strOut, std::string_view svTail) const {
    strOut.append(aBytes, sizeof(aBytes));
    strOut.append(svTail);
  }
};

bool IsOfKind(std::string_view svFrame, IngressKind kind, size_t uHeaderSize) {
  return svFrame.size() >= uHeaderSize && svFrame[0] == static_cast<char>(kind) && svFrame[1] == 0 && svFrame[2] == 0 &&
         svFrame[3] == 0;
}

bool HasMagic(std::string_view svFrame) {
  return std::memcmp(svFrame.data() + 4, kMagic, sizeof(kMagic)) == 0;
}

}  // namespace

void AppendHello(std::string& strOut, uint32_t uVersion) {
  FrameHead<kIngressHelloSize> head(IngressKind::Hello, 0);
  std::memcpy(head.At(4), kMagic, sizeof(kMagic));
  Put(head.At(8), uVersion);
  head.AppendTo(strOut, {});
}

void AppendWelcome(std::string& strOut, const IngressWelcome& welcome) {
  FrameHead<kWelcomeSize> head(IngressKind::Welcome, 0);
  std::memcpy(head.At(4), kMagic, sizeof(kMagic));
  Put(head.At(8), welcome.uVersion);
  Put(head.At(12), welcome.uMaxFrame);
  Put(head.At(16), welcome.uWindow);
  head.AppendTo(strOut, {});
}

void AppendMessage(std::string& strOut, const IngressMessage& message) {
  FrameHead<kIngressMessageHeaderSize> head(IngressKind::Message, message.svPayload.size());
  Put(head.At(4), message.uMsgType);
  Put(head.At(8), message.u64RequestId);
  Put(head.At(16), message.sender);
  head.AppendTo(strOut, message.svPayload);
}

void AppendAnswer(std::string& strOut, const IngressAnswer& answer) {
  FrameHead<kIngressAnswerHeaderSize> head(IngressKind::Answer, answer.svText.size());
  Put(head.At(4), answer.uStatus);
  Put(head.At(8), answer.u64RequestId);
  head.AppendTo(strOut, answer.svText);
}

void AppendFailure(std::string& strOut, IngressFailure failure, std::string_view svText) {
  FrameHead<kFailureHeaderSize> head(IngressKind::Failure, svText.size());
  Put(head.At(4), static_cast<uint32_t>(failure));
  head.AppendTo(strOut, svText);
}

uint32_t ReadFrameLength(const char* pPrefix) {
  return Get<uint32_t>(pPrefix);
}

bool ReadHello(std::string_view svFrame, uint32_t& uVersion) {
  if (svFrame.size() != kIngressHelloSize || !IsOfKind(svFrame, IngressKind::Hello, kIngressHelloSize) ||
      !HasMagic(svFrame)) {
    return false;
  }
  uVersion = Get<uint32_t>(svFrame.data() + 8);
  return true;
}

bool ReadWelcome(std::string_view svFrame, IngressWelcome& welcome) {
  if (svFrame.size() != kWelcomeSize || !IsOfKind(svFrame, IngressKind::Welcome, kWelcomeSize) || !HasMagic(svFrame)) {
    return false;
  }
  welcome.uVersion = Get<uint32_t>(svFrame.data() + 8);
  welcome.uMaxFrame = Get<uint32_t>(svFrame.data() + 12);
  welcome.uWindow = Get<uint32_t>(svFrame.data() + 16);
  return true;
}

bool ReadMessage(std::string_view svFrame, IngressMessage& message) {
  if (!IsOfKind(svFrame, IngressKind::Message, kIngressMessageHeaderSize)) {
    return false;
  }
  message.uMsgType = Get<uint32_t>(svFrame.data() + 4);
  message.u64RequestId = Get<uint64_t>(svFrame.data() + 8);
  message.sender = Get<GUID>(svFrame.data() + 16);
  message.svPayload = svFrame.substr(kIngressMessageHeaderSize);
  return true;
}

bool ReadAnswer(std::string_view svFrame, IngressAnswer& answer) {
  if (!IsOfKind(svFrame, IngressKind::Answer, kIngressAnswerHeaderSize)) {
    return false;
  }
  answer.uStatus = Get<uint32_t>(svFrame.data() + 4);
  answer.u64RequestId = Get<uint64_t>(svFrame.data() + 8);
  answer.svText = svFrame.substr(kIngressAnswerHeaderSize);
  return true;
}

bool ReadFailure(std::string_view svFrame, IngressFailure& failure, std::string_view& svText) {
  if (!IsOfKind(svFrame, IngressKind::Failure, kFailureHeaderSize)) {
    return false;
  }
  failure = static_cast<IngressFailure>(Get<uint32_t>(svFrame.data() + 4));
  svText = svFrame.substr(kFailureHeaderSize);
  return true;
}
