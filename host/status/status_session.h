// A connection of the status's server: a request, its answer, the end.
//
// Threads: all on the thread that runs the socket's context.
#ifndef QMLOGCACHE_HOST_STATUS_STATUS_SESSION_H_
#define QMLOGCACHE_HOST_STATUS_STATUS_SESSION_H_

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <chrono>
#include <functional>
#include <memory>

#include "host/status/http_answers.h"
#include "host/status/status_server.h"

class CStatusSession : public std::enable_shared_from_this<CStatusSession> {
 public:
  using Answer = std::function<StatusResponse(const StatusRequest& request)>;

  // fnAnswer must outlive the session. fnClosed is called once, when the connection has been closed.
  CStatusSession(boost::asio::ip::tcp::socket socket, std::chrono::milliseconds timeout, const Answer& fnAnswer,
                 std::function<void()> fnClosed);

  void Start();
  void Close();

 private:
  template <typename TStep>
  void OrClose(const TStep& fnStep);
  void OnRequest(const boost::system::error_code& error);
  void Write(StatusResponse response);
  void AwaitEnd(size_t uLeft);

  boost::beast::tcp_stream m_stream;
  boost::beast::flat_buffer m_buffer{kLongestRequest};
  boost::beast::http::request_parser<boost::beast::http::empty_body> m_parser;
  StatusResponse m_response;
  std::array<char, 1024> m_aFarewell{};
  const std::chrono::milliseconds m_timeout;
  const Answer& m_fnAnswer;
  std::function<void()> m_fnClosed;
};

#endif  // QMLOGCACHE_HOST_STATUS_STATUS_SESSION_H_
