#include "host/ingress/connection.h"

#include <poll.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <ctime>
#include <exception>
#include <utility>

namespace {

using boost::system::error_code;

constexpr unsigned int kMessagesATurn = 256;
constexpr unsigned int kReadsATurn = 16;
// A component that writes each record to a slow disk would keep the thread for seconds: the answers and all the other
// connections would wait. Somewhat more than the clock's step.
constexpr int64_t kLongestTurnMs = 20;
constexpr size_t kMaxOutput = 1U << 20;
// A write buffer that one burst made larger than this is not kept.
constexpr size_t kKeptOutput = 256U << 10;

// Asked for each message; its steps are those of the kernel's timer.
int64_t CoarseMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

bool IsRetry(const error_code& error) {
  return error == boost::asio::error::would_block || error == boost::asio::error::try_again ||
         error == boost::asio::error::interrupted;
}

}  // namespace

CConnection::CConnection(Socket socket, const Environment& environment, std::string strPeer)
    : m_environment(environment),
      m_strPeer(std::move(strPeer)),
      m_socket(std::move(socket)),
      m_pAnswers(std::make_shared<CAnswerBox>(environment.options.uWindow, kMaxOutput,
                                              [this] { OnStrand([this] { Flush(); }); })),
      m_frameSince(Clock::now()) {}

CConnection::~CConnection() {
  m_pAnswers->Close();
}

// Nothing thrown on a strand may reach the thread: it ends this connection only.
template <typename Function>
void CConnection::Guarded(Function fnWork) noexcept {
  try {
    if (m_state != State::Closed) {
      fnWork();
    }
  } catch (const std::exception& error) {
    try {
      m_environment.log.Warn(CLimitedLog::Kind::InternalError, m_strPeer + ": closed after an error: " + error.what());
    } catch (...) {
    }
    Close();
  } catch (...) {
    Close();
  }
}

template <typename Function>
void CConnection::OnStrand(Function fnWork) {
  if (auto pSelf = weak_from_this().lock()) {
    boost::asio::post(m_socket.get_executor(),
                      [pSelf = std::move(pSelf), fnWork = std::move(fnWork)] { pSelf->Guarded(fnWork); });
  }
}

void CConnection::Start() {
  OnStrand([this] {
    m_socket.non_blocking(true);
    Turn();
  });
}

void CConnection::Check() {
  OnStrand([this] { CheckTimes(); });
}

void CConnection::BeginStop() {
  OnStrand([this] {
    if (MayRead()) {
      m_pAnswers->AddFailure(IngressFailure::Stopping, "the host is stopping");
      m_state = State::Draining;
      Flush();
    }
  });
}

void CConnection::Abort() {
  OnStrand([this] { Close(); });
}

void CConnection::Turn() {
  if (!MayRead()) {
    return;
  }
  m_bUsed = true;
  m_i64TurnEnd = CoarseMilliseconds() + kLongestTurnMs;
  m_pAnswers->HoldWakes();
  const Pause pause = TakeAndRead();
  if (pause == Pause::NeedBytes) {
    NoteFrameProgress();
    m_bInputTaken = m_bInputEnded;
    if (m_bInputTaken && !m_buffer.Empty()) {
      m_environment.log.Warn(CLimitedLog::Kind::Disconnected, m_strPeer + ": went in the middle of a frame");
    }
  }
  Flush();
  if (!MayRead()) {
    return;
  }
  if (pause == Pause::NeedBytes) {
    WaitReadable();
  } else if (pause == Pause::OutputFull && m_bWriteWaiting) {
    m_bHeldBack = true;
  } else if (!m_bTurnPosted) {
    OnStrand([this] {
      m_bTurnPosted = false;
      Turn();
    });
    m_bTurnPosted = true;
  }
}

CConnection::Pause CConnection::TakeAndRead() {
  unsigned int uMessages = 0;
  unsigned int uReads = 0;
  bool bMore = !m_bInputEnded;
  for (;;) {
    const Pause pause = TakeFrames(uMessages);
    if (pause != Pause::NeedBytes || !bMore) {
      return pause;
    }
    if (uReads == kReadsATurn) {
      return Pause::TurnOver;
    }
    ++uReads;
    if (!Read(bMore)) {
      return m_state == State::Closed ? Pause::Ended : Pause::NeedBytes;
    }
  }
}

CConnection::Pause CConnection::TakeFrames(unsigned int& uMessages) {
  for (;;) {
    const std::string_view svData = m_buffer.Data();
    if (svData.size() < kIngressPrefixSize) {
      return Pause::NeedBytes;
    }
    const uint32_t uLength = ReadFrameLength(svData.data());
    if (m_state == State::Hello && uLength != kIngressHelloSize) {
      Fail(IngressFailure::Malformed, "the first frame is not a hello");
      return Pause::Ended;
    }
    if (uLength > m_environment.options.uMaxFrame) {
      Fail(IngressFailure::TooLong, "a frame of " + std::to_string(uLength) + " bytes, at most " +
                                        std::to_string(m_environment.options.uMaxFrame) + " are taken");
      return Pause::Ended;
    }
    if (svData.size() - kIngressPrefixSize < uLength) {
      return Pause::NeedBytes;
    }
    if (IsTurnOver(uMessages)) {
      return Pause::TurnOver;
    }
    const std::string_view svFrame = svData.substr(kIngressPrefixSize, uLength);
    if (m_state == State::Hello) {
      if (!TakeHello(svFrame)) {
        return Pause::Ended;
      }
    } else {
      const Pause pause = TakeMessage(svFrame);
      if (pause != Pause::NeedBytes) {
        return pause;
      }
      ++uMessages;
    }
    m_bAnyFrame = true;
    m_buffer.Consume(kIngressPrefixSize + uLength);
  }
}

// Each turn takes a message at least.
bool CConnection::IsTurnOver(unsigned int uMessages) const {
  return uMessages == kMessagesATurn || (uMessages > 0 && CoarseMilliseconds() >= m_i64TurnEnd);
}

bool CConnection::TakeHello(std::string_view svFrame) {
  uint32_t uVersion = 0;
  if (!ReadHello(svFrame, uVersion)) {
    Fail(IngressFailure::Malformed, "the first frame is not a hello");
    return false;
  }
  if (uVersion != kIngressVersion) {
    Fail(IngressFailure::Version, "version " + std::to_string(uVersion) + " is not spoken here, only version " +
                                      std::to_string(kIngressVersion));
    return false;
  }
  m_pAnswers->AddWelcome({kIngressVersion, m_environment.options.uMaxFrame, m_environment.options.uWindow});
  m_state = State::Open;
  return true;
}

// NeedBytes: taken, on to the next.
CConnection::Pause CConnection::TakeMessage(std::string_view svFrame) {
  IngressMessage message;
  if (!ReadMessage(svFrame, message)) {
    Fail(IngressFailure::Malformed, "not a message frame");
    return Pause::Ended;
  }
  switch (m_pAnswers->Admit()) {
    case CAnswerBox::Admission::Taken:
      break;
    case CAnswerBox::Admission::OutputFull:
      return Pause::OutputFull;
    case CAnswerBox::Admission::WindowFull:
      Fail(IngressFailure::WindowFull,
           "more than " + std::to_string(m_environment.options.uWindow) + " messages are unanswered");
      return Pause::Ended;
  }
  const uint32_t uStatus = m_environment.router.DeliverFromProducer(
      message.sender, message.uMsgType, reinterpret_cast<const uint8_t*>(message.svPayload.data()),
      static_cast<uint32_t>(message.svPayload.size()), m_pAnswers, message.u64RequestId);
  if (uStatus != 0) {
    m_pAnswers->OnReply(message.u64RequestId, uStatus, {});
  }
  return Pause::NeedBytes;
}

bool CConnection::Read(bool& bMore) {
  const std::string_view svData = m_buffer.Data();
  size_t uFrameSize = 0;
  if (svData.size() >= kIngressPrefixSize) {
    uFrameSize = kIngressPrefixSize + ReadFrameLength(svData.data());
  }
  const CReadBuffer::Space space = m_buffer.Prepare(uFrameSize);
  error_code error;
  const size_t uRead = m_socket.read_some(boost::asio::buffer(space.pBegin, space.uSize), error);
  if (!error) {
    m_buffer.Commit(uRead);
    bMore = uRead == space.uSize;
    return true;
  }
  if (error == boost::asio::error::eof) {
    m_bInputEnded = true;
  } else if (!IsRetry(error)) {
    Close();
  }
  return false;
}

void CConnection::NoteFrameProgress() {
  const bool bAnyFrame = std::exchange(m_bAnyFrame, false);
  if (m_state == State::Hello) {
    return;  // the time runs from the connection's start
  }
  const bool bWasUnfinished = std::exchange(m_bUnfinished, !m_buffer.Empty());
  if (m_bUnfinished && (bAnyFrame || !bWasUnfinished)) {
    m_frameSince = Clock::now();
  }
}

void CConnection::Flush() {
  while (!m_bWriteWaiting && m_state != State::Closed) {
    if (m_uWritten == m_strWriting.size()) {
      m_strWriting.clear();
      m_uWritten = 0;
      if (m_strWriting.capacity() > kKeptOutput) {
        m_strWriting.shrink_to_fit();
      }
      bool bIdle = false;
      if (!m_pAnswers->TakeOutput(m_strWriting, bIdle)) {
        if (m_state == State::Draining || (m_bInputTaken && bIdle) || m_pAnswers->IsBroken()) {
          Close();
        }
        return;
      }
      m_writingSince = Clock::now();
    }
    error_code error;
    const size_t uWritten = m_socket.write_some(
        boost::asio::buffer(m_strWriting.data() + m_uWritten, m_strWriting.size() - m_uWritten), error);
    if (!error) {
      m_uWritten += uWritten;
    } else if (IsRetry(error)) {
      WaitWritable();
    } else {
      Close();
    }
  }
}

void CConnection::WaitReadable() {
  if (m_bReadWaiting || m_bInputEnded) {
    return;
  }
  m_socket.async_wait(Socket::wait_read, [pSelf = shared_from_this()](const error_code& error) {
    pSelf->Guarded([&] {
      pSelf->m_bReadWaiting = false;
      if (error) {
        pSelf->Close();
      } else if (!pSelf->m_bHeldBack) {
        pSelf->Turn();
      }
    });
  });
  m_bReadWaiting = true;
}

void CConnection::WaitWritable() {
  m_socket.async_wait(Socket::wait_write, [pSelf = shared_from_this()](const error_code& error) {
    pSelf->Guarded([&] {
      pSelf->m_bWriteWaiting = false;
      if (error) {
        pSelf->Close();
      } else {
        pSelf->OnWritable();
      }
    });
  });
  m_bWriteWaiting = true;
}

void CConnection::OnWritable() {
  Flush();
  if (!m_bWriteWaiting && std::exchange(m_bHeldBack, false)) {
    // The producer was not served meanwhile: its unfinished frame gets the whole time again.
    m_frameSince = Clock::now();
    Turn();
  }
}

// A thread that was held up in a component can find time limits passed through no fault of the producer, so what the
// socket holds is looked at first, and only what is still unfinished then counts.
void CConnection::CheckTimes() {
  if (m_pAnswers->IsBroken() || (m_bInputEnded && PeerIsGone())) {
    Close();
    return;
  }
  if (m_bWriteWaiting && HasPassed(m_writingSince)) {
    m_bWriteWaiting = false;
    const Clock::time_point before = m_writingSince;
    Flush();
    if (m_state != State::Closed && m_bWriteWaiting && m_writingSince == before) {
      m_environment.log.Warn(CLimitedLog::Kind::RuleBroken, m_strPeer + ": closed, it does not read its answers");
      Close();
    }
    return;
  }
  if (MayRead() && m_bUnfinished && !m_bHeldBack && !m_bTurnPosted && HasPassed(m_frameSince)) {
    Turn();
    if (MayRead() && m_bUnfinished && !m_bHeldBack && !m_bTurnPosted && HasPassed(m_frameSince)) {
      Fail(IngressFailure::Stalled,
           m_state == State::Hello ? "no hello came in time" : "a frame was begun and not finished in time");
      Flush();
    }
    return;
  }
  if (!std::exchange(m_bUsed, false) && m_buffer.Empty()) {
    m_buffer.Release();
  }
}

bool CConnection::HasPassed(Clock::time_point since) const {
  return Clock::now() - since > std::chrono::milliseconds(m_environment.options.uStallTimeoutMs);
}

bool CConnection::PeerIsGone() {
  pollfd descriptor{m_socket.native_handle(), 0, 0};
  return ::poll(&descriptor, 1, 0) == 1 && (descriptor.revents & (POLLHUP | POLLERR)) != 0;
}

void CConnection::Fail(IngressFailure failure, std::string_view svText) {
  m_environment.log.Warn(CLimitedLog::Kind::RuleBroken, m_strPeer + ": closed, " + std::string(svText));
  m_pAnswers->AddFailure(failure, svText);
  m_state = State::Draining;
}

void CConnection::Close() noexcept {
  if (m_state == State::Closed) {
    return;
  }
  m_state = State::Closed;
  m_pAnswers->Close();
  // First forgotten, then closed: when the producer sees the end, its place is free again.
  m_environment.fnClosed(this);
  error_code ignored;
  m_socket.close(ignored);
}
