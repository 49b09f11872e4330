// The protocol that local producers speak with the host over its Unix stream socket. All integers are little-endian.
//
// Each side sends frames: a 32-bit length of what follows, then that many bytes, the first of which is the frame's
// kind.
//
//   Hello (kind 1), the first frame of the producer, answered before anything else is taken:
//     u8 kind, u8[3] zero, char[4] "QMIN", u32 version (1)
//   Welcome (kind 2), the host's answer:
//     u8 kind, u8[3] zero, char[4] "QMIN", u32 version (1), u32 longest frame the host takes, u32 messages that may be
//     unanswered at once on this connection
//   Message (kind 3):
//     u8 kind, u8[3] zero, u32 message type, u64 request id, u8[16] sender GUID (u32, u16, u16, u8[8]), then the
//     payload
//   Answer (kind 4), one for each message, not always in the order of the messages:
//     u8 kind, u8[3] zero, u32 status (0: accepted), u64 request id, then the receiver's answer text
//   Failure (kind 5), the host's last frame before it closes a connection that broke the rules:
//     u8 kind, u8[3] zero, u32 reason, then a text for people
#ifndef QMLOGCACHE_HOST_PROTOCOL_INGRESS_PROTOCOL_H_
#define QMLOGCACHE_HOST_PROTOCOL_INGRESS_PROTOCOL_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "plugin/compctx/guid.h"

inline constexpr uint32_t kIngressVersion = 1;
inline constexpr uint32_t kIngressDefaultMaxFrame = 16U << 20;
inline constexpr uint32_t kIngressDefaultWindow = 1024;

enum class IngressKind : uint8_t { Hello = 1, Welcome = 2, Message = 3, Answer = 4, Failure = 5 };

enum class IngressFailure : uint32_t {
  Malformed = 1,   // not a frame of this protocol, or out of turn
  TooLong = 2,     // longer than the host takes
  Stalled = 3,     // a frame was begun and not finished in time, or answers were not read
  Version = 4,     // a protocol version the host does not speak
  WindowFull = 5,  // more unanswered messages than allowed
  Stopping = 6,    // the host is stopping
};

struct IngressWelcome {
  uint32_t uVersion = kIngressVersion;
  uint32_t uMaxFrame = kIngressDefaultMaxFrame;
  uint32_t uWindow = kIngressDefaultWindow;
};

struct IngressMessage {
  uint32_t uMsgType = 0;
  uint64_t u64RequestId = 0;
  GUID sender{};
  std::string_view svPayload;  // points into the frame
};

struct IngressAnswer {
  uint32_t uStatus = 0;
  uint64_t u64RequestId = 0;
  std::string_view svText;  // points into the frame
};

// Length prefix of a frame.
inline constexpr size_t kIngressPrefixSize = 4;
// A hello frame without its prefix; a first frame of any other length is none.
inline constexpr size_t kIngressHelloSize = 12;
// Bytes of a message or answer frame (without the prefix) before its payload or text.
inline constexpr size_t kIngressMessageHeaderSize = 32;
inline constexpr size_t kIngressAnswerHeaderSize = 16;

// Writers append one whole frame, prefix included.
void AppendHello(std::string& strOut, uint32_t uVersion = kIngressVersion);
void AppendWelcome(std::string& strOut, const IngressWelcome& welcome);
void AppendMessage(std::string& strOut, const IngressMessage& message);
void AppendAnswer(std::string& strOut, const IngressAnswer& answer);
void AppendFailure(std::string& strOut, IngressFailure failure, std::string_view svText);

// The length that a prefix announces. pPrefix: kIngressPrefixSize bytes.
uint32_t ReadFrameLength(const char* pPrefix);

// Readers take a frame without its prefix; false when it is not a well-formed frame of that kind.
[[nodiscard]] bool ReadHello(std::string_view svFrame, uint32_t& uVersion);
[[nodiscard]] bool ReadWelcome(std::string_view svFrame, IngressWelcome& welcome);
[[nodiscard]] bool ReadMessage(std::string_view svFrame, IngressMessage& message);
[[nodiscard]] bool ReadAnswer(std::string_view svFrame, IngressAnswer& answer);
[[nodiscard]] bool ReadFailure(std::string_view svFrame, IngressFailure& failure, std::string_view& svText);

#endif  // QMLOGCACHE_HOST_PROTOCOL_INGRESS_PROTOCOL_H_
