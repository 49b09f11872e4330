// What a producer sends over its connection: frames, whole or in pieces, well formed or not.
//
// The first bytes set the frame limit, the window, how the router answers and how the stream is cut; the rest is the
// stream, written into one end of a socket pair whose other end a real connection serves.
//
// Holds: a reader of our own (support/ingress_reader.h) predicts every delivery to the router byte for byte, and every
// answer, up to the failure frame and its reason, however the stream was cut; the memory that a connection takes
// depends on what has come and not on what is announced; the connection ends by itself once the producer has sent its
// last byte; what a frame reader takes, the writer of that frame writes again; the read buffer gives back the stream as
// it came, in storage that its bound allows.
#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/allocator_interface.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/ingress/connection.h"
#include "host/ingress/read_buffer.h"
#include "host/protocol/combo_payload.h"
#include "host/protocol/host_status.h"
#include "host/protocol/ingress_protocol.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/ingress_reader.h"

namespace {

// Of a connection and the machinery around it, whose answers are held in part twice.
constexpr size_t kConnectionMemory = CReadBuffer::kBusySize;

class CKeepingRouter : public IRouter {
 public:
  std::shared_ptr<IHostContext> CreateContext() override { return nullptr; }
  void StopIntake() override {}
  IntakeCounts GetIntakeCounts() const override { return {}; }
  uint32_t DeliverFromProducer(const GUID& sender, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                               const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie) override {
    vecDelivered.push_back({sender, uMsgType, u64Cookie, {reinterpret_cast<const char*>(pData), uLength}});
    switch (manner) {
      case Manner::Refuses:
        return kHostNoReceiver;
      case Manner::AnswersLater:
        vecDue.push_back({pSink, u64Cookie});
        return 0;
      case Manner::AnswersAtOnce:
        break;
    }
    pSink->OnReply(u64Cookie, 0, "success");
    return 0;
  }
  void AnswerAll() {
    for (const Due& due : vecDue) {
      due.pSink->OnReply(due.u64Cookie, 0, "success");
    }
    vecDue.clear();
  }

  struct Due {
    std::shared_ptr<IReplySink> pSink;
    uint64_t u64Cookie;
  };
  Manner manner = Manner::AnswersAtOnce;
  std::vector<Delivered> vecDelivered;
  std::vector<Due> vecDue;
};

// The producer's end: never blocks, keeps what the connection wrote.
class CProducer {
 public:
  explicit CProducer(int iSocket) : m_iSocket(iSocket) {}
  ~CProducer() { close(m_iSocket); }
  CProducer(const CProducer&) = delete;
  CProducer& operator=(const CProducer&) = delete;

  // Sends as much as goes; false when the other side is gone.
  bool Send(std::string_view& svBytes) const {
    while (!svBytes.empty()) {
      const ssize_t iSent = send(m_iSocket, svBytes.data(), svBytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (iSent < 0) {
        return errno == EAGAIN;
      }
      svBytes.remove_prefix(static_cast<size_t>(iSent));
    }
    return true;
  }
  void EndSending() const { shutdown(m_iSocket, SHUT_WR); }
  // Takes what is there; false at the end of the stream.
  bool Take() {
    char szBlock[4096];
    ssize_t iTaken = 0;
    while ((iTaken = recv(m_iSocket, szBlock, sizeof(szBlock), MSG_DONTWAIT)) > 0) {
      m_strTaken.append(szBlock, static_cast<size_t>(iTaken));
    }
    return iTaken < 0 && errno == EAGAIN;
  }
  const std::string& Taken() const { return m_strTaken; }

 private:
  const int m_iSocket;
  std::string m_strTaken;
};

void CheckConnection(FuzzedDataProvider& input) {
  IngressOptions options;
  options.uMaxFrame = input.ConsumeIntegralInRange<uint32_t>(64, 8192);
  if (options.uMaxFrame == 8192) {
    options.uMaxFrame = 1U << 30;  // the most that the configuration allows
  }
  options.uWindow = input.ConsumeIntegralInRange<uint32_t>(1, 8);
  options.uStallTimeoutMs = 3600000;
  CKeepingRouter router;
  router.manner = input.PickValueInArray({Manner::AnswersAtOnce, Manner::Refuses, Manner::AnswersLater});
  std::vector<size_t> vecCuts(input.ConsumeIntegralInRange<size_t>(0, 6));
  std::generate(vecCuts.begin(), vecCuts.end(), [&] { return input.ConsumeIntegralInRange<size_t>(0, 200); });
  const std::string strStream = input.ConsumeRemainingBytesAsString();
  const Prediction prediction = Predict(strStream, options, router.manner);
  const size_t uMemoryLimit = __sanitizer_get_current_allocated_bytes() + kConnectionMemory + 4 * strStream.size();

  int aiSockets[2] = {-1, -1};
  FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aiSockets) == 0);
  // The least room there is, so that answers which nobody takes hold the connection up.
  constexpr int kSocketRoom = 1;
  for (const int iSocket : aiSockets) {
    FUZZ_CHECK(setsockopt(iSocket, SOL_SOCKET, SO_SNDBUF, &kSocketRoom, sizeof(kSocketRoom)) == 0);
  }
  // A producer with an even window takes its answers seldom.
  const size_t uRoundsATake = options.uWindow % 2 == 0 ? 8 : 1;
  CProducer producer(aiSockets[0]);
  static auto& log = *new CLimitedLog;
  bool bClosed = false;
  {
    boost::asio::io_context context(1);
    const CConnection::Environment environment{options, router, log, [&bClosed](CConnection*) { bClosed = true; }};
    CConnection::Socket socket(boost::asio::make_strand(context), boost::asio::local::stream_protocol(), aiSockets[1]);
    auto pConnection = std::make_shared<CConnection>(std::move(socket), environment, "producer");
    pConnection->Start();
    context.poll();
    std::string_view svRest = strStream;
    for (const size_t uCut : vecCuts) {
      std::string_view svPiece = svRest.substr(0, uCut);
      svRest.remove_prefix(svPiece.size());
      static_cast<void>(producer.Send(svPiece));
      context.restart();
      context.poll();
    }
    // Bounded: each round that takes answers either moves bytes or is one of the few that settle the end.
    const size_t uRounds = uRoundsATake * (strStream.size() + 16);
    for (size_t uRound = 0; uRound < uRounds && !bClosed; ++uRound) {
      const bool bSent = producer.Send(svRest);
      if (!bSent || svRest.empty()) {
        producer.EndSending();
      }
      context.restart();
      context.poll();
      if (svRest.empty() && uRound > 2) {
        router.AnswerAll();
      }
      if (uRound % uRoundsATake == 0) {
        static_cast<void>(producer.Take());
      }
      FUZZ_CHECK(__sanitizer_get_current_allocated_bytes() < uMemoryLimit);
      pConnection->Check();
    }
    FUZZ_CHECK(bClosed);
    router.AnswerAll();
    pConnection.reset();
    context.restart();
    context.poll();
  }
  while (producer.Take()) {
  }
  FUZZ_CHECK(router.vecDelivered == prediction.vecDelivered);
  CheckOutput(producer.Taken(), prediction, router.manner);
}

// One frame without its prefix, offered to every reader.
void CheckReaders(const std::string& strFrame) {
  const std::unique_ptr<char[]> pExact(new char[strFrame.size()]);
  memcpy(pExact.get(), strFrame.data(), strFrame.size());
  const std::string_view svFrame(pExact.get(), strFrame.size());
  const std::string strWhole = Bytes(strFrame.size(), 4) + strFrame;
  std::string strAgain;
  int iReaders = 0;

  uint32_t uVersion = 0;
  if (ReadHello(svFrame, uVersion)) {
    ++iReaders;
    AppendHello(strAgain, uVersion);
  }
  IngressWelcome welcome;
  if (ReadWelcome(svFrame, welcome)) {
    ++iReaders;
    AppendWelcome(strAgain, welcome);
  }
  IngressMessage message;
  if (ReadMessage(svFrame, message)) {
    ++iReaders;
    AppendMessage(strAgain, message);
  }
  IngressAnswer answer;
  if (ReadAnswer(svFrame, answer)) {
    ++iReaders;
    AppendAnswer(strAgain, answer);
  }
  IngressFailure failure{};
  std::string_view svText;
  if (ReadFailure(svFrame, failure, svText)) {
    ++iReaders;
    AppendFailure(strAgain, failure, svText);
  }
  FUZZ_CHECK(iReaders <= 1);
  FUZZ_CHECK(iReaders == 0 || strAgain == strWhole);
}

void CheckReadBuffer(FuzzedDataProvider& input) {
  const size_t uFrameSize = input.ConsumeBool() ? 0 : input.ConsumeIntegralInRange<size_t>(0, 512U << 10);
  const std::string strBlock = input.ConsumeRandomLengthString(64);
  CReadBuffer buffer;
  std::string strExpected;
  constexpr int kSteps = 32;
  for (int i = 0; i < kSteps && input.remaining_bytes() > 0; ++i) {
    if (input.ConsumeBool()) {
      const CReadBuffer::Space space = buffer.Prepare(uFrameSize);
      FUZZ_CHECK(space.uSize > 0);
      size_t uFill = std::min<size_t>(space.uSize, input.ConsumeIntegralInRange<size_t>(0, 128U << 10));
      // Only a frame's bytes, or a busy connection's, wait in the buffer.
      uFill = std::min(uFill, std::max(CReadBuffer::kBusySize, uFrameSize) - 1 -
                                  std::min(strExpected.size(), std::max(CReadBuffer::kBusySize, uFrameSize) - 1));
      std::string strFill;
      while (strFill.size() < uFill) {
        strFill += strBlock.empty() ? std::string("x") : strBlock;
      }
      strFill.resize(uFill);
      memcpy(space.pBegin, strFill.data(), uFill);
      buffer.Commit(uFill);
      strExpected += strFill;
    } else {
      const auto uTake = std::min<size_t>(input.ConsumeIntegral<uint32_t>(), strExpected.size());
      buffer.Consume(uTake);
      strExpected.erase(0, uTake);
    }
    FUZZ_CHECK(buffer.Data() == strExpected);
    FUZZ_CHECK(buffer.Empty() == strExpected.empty());
    FUZZ_CHECK(buffer.Capacity() <= std::max(CReadBuffer::kBusySize, uFrameSize));
  }
}

void CheckComboPayload(FuzzedDataProvider& input) {
  const auto strProduct = input.ConsumeRandomLengthString(80);
  const auto strCombo = input.ConsumeRandomLengthString(80);
  const auto iNumber = input.ConsumeIntegral<int32_t>();
  const auto strData = input.ConsumeRemainingBytesAsString();
  ComboHeader header;
  std::string strError;
  if (!MakeComboHeader({iNumber, iNumber, iNumber, strProduct, strCombo}, header, strError)) {
    FUZZ_CHECK(!strError.empty());
    FUZZ_CHECK((strProduct + strCombo).find('\0') != std::string::npos || strProduct.size() > 63 ||
               strCombo.size() > 63);
    return;
  }
  std::string strPayload;
  AppendComboPayload(strPayload, header, strData);
  FUZZ_CHECK(strPayload.size() == kComboHeaderSize + strData.size());
  FUZZ_CHECK(Number(strPayload, 144) == strData.size() && strPayload.ends_with(strData));
  FUZZ_CHECK(strProduct == strPayload.c_str() + 16 && strCombo == strPayload.c_str() + 80);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  FuzzedDataProvider input(pData, uSize);
  switch (input.ConsumeIntegralInRange(0, 7)) {
    case 0:
      CheckReaders(input.ConsumeRemainingBytesAsString());
      break;
    case 1:
      CheckReadBuffer(input);
      break;
    case 2:
      CheckComboPayload(input);
      break;
    default:
      CheckConnection(input);
      break;
  }
  return 0;
}
