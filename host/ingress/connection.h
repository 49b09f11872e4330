// One producer's connection.
//
// Everything but the answer box runs on the connection's strand, in turns: a turn reads what is there, delivers messages
// up to a bounded number and for a bounded time, and writes their answers together; then the other connections have
// theirs. While answers wait for the producer to read them beyond a bound, nothing is read from it.
#ifndef QMLOGCACHE_HOST_INGRESS_CONNECTION_H_
#define QMLOGCACHE_HOST_INGRESS_CONNECTION_H_

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/strand.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/ingress/answer_box.h"
#include "host/ingress/ingress_server.h"
#include "host/ingress/limited_log.h"
#include "host/ingress/read_buffer.h"

class CConnection : public std::enable_shared_from_this<CConnection> {
 public:
  using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;
  using Socket = boost::asio::basic_stream_socket<boost::asio::local::stream_protocol, Strand>;

  // What a connection needs of its server; outlives it.
  struct Environment {
    const IngressOptions& options;
    IRouter& router;
    CLimitedLog& log;
    std::function<void(CConnection*)> fnClosed;  // once, on the strand
  };

  CConnection(Socket socket, const Environment& environment, std::string strPeer);
  ~CConnection();
  CConnection(const CConnection&) = delete;
  CConnection& operator=(const CConnection&) = delete;

  // These return at once; the work is done on the strand.
  void Start();
  // Looks for time limits that have passed and gives idle memory back.
  void Check();
  // Takes no more messages, writes the answers that are ready and a last frame, then closes.
  void BeginStop();
  void Abort();

 private:
  using Clock = std::chrono::steady_clock;
  enum class State { Hello, Open, Draining, Closed };
  enum class Pause { NeedBytes, TurnOver, OutputFull, Ended };

  template <typename Function>
  void OnStrand(Function fnWork);
  template <typename Function>
  void Guarded(Function fnWork) noexcept;

  void Turn();
  Pause TakeAndRead();
  Pause TakeFrames(unsigned int& uMessages);
  bool IsTurnOver(unsigned int uMessages) const;
  bool TakeHello(std::string_view svFrame);
  Pause TakeMessage(std::string_view svFrame);
  // True when bytes came; clears bMore when the socket held no more than these.
  bool Read(bool& bMore);
  void NoteFrameProgress();
  void Flush();
  void WaitReadable();
  void WaitWritable();
  void OnWritable();
  void CheckTimes();
  bool HasPassed(Clock::time_point since) const;
  bool PeerIsGone();
  void Fail(IngressFailure failure, std::string_view svText);
  void Close() noexcept;
  bool MayRead() const { return m_state == State::Hello || m_state == State::Open; }

  const Environment& m_environment;
  const std::string m_strPeer;  // for the log
  Socket m_socket;
  const std::shared_ptr<CAnswerBox> m_pAnswers;
  CReadBuffer m_buffer;
  std::string m_strWriting;
  size_t m_uWritten = 0;
  State m_state = State::Hello;
  int64_t m_i64TurnEnd = 0;          // milliseconds of the coarse clock
  Clock::time_point m_frameSince;    // when the unfinished frame (or the wait for the hello) began
  Clock::time_point m_writingSince;  // when m_strWriting was begun
  bool m_bUnfinished = true;         // m_frameSince counts
  bool m_bAnyFrame = false;          // a frame was taken since the last time more bytes were needed
  bool m_bReadWaiting = false;
  bool m_bWriteWaiting = false;
  bool m_bTurnPosted = false;
  bool m_bHeldBack = false;    // not reading until the output is written
  bool m_bInputEnded = false;  // the producer has sent its last byte
  bool m_bInputTaken = false;  // and every whole frame of it was taken
  bool m_bUsed = true;         // since the last check
};

#endif  // QMLOGCACHE_HOST_INGRESS_CONNECTION_H_
