#include "host/status/status_session.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <utility>

namespace http = boost::beast::http;
namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

// How long a client may take to hang up after its answer, and how much of what it still sends is read until then:
// closing with bytes unread would take the answer away from it.
constexpr std::chrono::seconds kFarewell{1};
constexpr size_t kFarewellBytes = 65536;

}  // namespace

// A step that throws was the last one.
template <typename TStep>
void CStatusSession::OrClose(const TStep& fnStep) {
  try {
    fnStep();
  } catch (...) {
    Close();
    throw;
  }
}

CStatusSession::CStatusSession(tcp::socket socket, std::chrono::milliseconds timeout, const Answer& fnAnswer,
                               std::function<void()> fnClosed)
    : m_stream(std::move(socket)), m_timeout(timeout), m_fnAnswer(fnAnswer), m_fnClosed(std::move(fnClosed)) {
  m_parser.header_limit(kLongestRequest);
}

void CStatusSession::Start() {
  OrClose([this] {
    m_stream.expires_after(m_timeout);
    // What a client sends as a body is not looked at.
    http::async_read_header(m_stream, m_buffer, m_parser,
                            [pSelf = shared_from_this()](const error_code& error, size_t) {
                              pSelf->OrClose([&] { pSelf->OnRequest(error); });
                            });
  });
}

void CStatusSession::Close() {
  error_code ignored;
  m_stream.socket().close(ignored);
  if (m_fnClosed) {
    std::exchange(m_fnClosed, nullptr)();
  }
}

void CStatusSession::OnRequest(const error_code& error) {
  if (!m_stream.socket().is_open()) {
    Close();
    return;
  }
  if (!error) {
    Write(m_fnAnswer(m_parser.get()));
  } else if (error == http::error::header_limit || error == http::error::buffer_overflow) {
    Write(AnswerFailure(http::status::request_header_fields_too_large, "The request is too long."));
  } else if (error.category() == http::make_error_code(http::error::bad_method).category() &&
             error != http::error::end_of_stream && error != http::error::partial_message) {
    Write(AnswerFailure(http::status::bad_request, "This is not a request."));
  } else {
    Close();
  }
}

void CStatusSession::Write(StatusResponse response) {
  m_response = std::move(response);
  m_stream.expires_after(m_timeout);
  http::async_write(m_stream, m_response, [pSelf = shared_from_this()](const error_code& error, size_t) {
    if (error) {
      pSelf->Close();
      return;
    }
    error_code ignored;
    pSelf->m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    pSelf->m_stream.expires_after(kFarewell);
    pSelf->OrClose([&] { pSelf->AwaitEnd(kFarewellBytes); });
  });
}

void CStatusSession::AwaitEnd(size_t uLeft) {
  m_stream.async_read_some(asio::buffer(m_aFarewell),
                           [pSelf = shared_from_this(), uLeft](const error_code& error, size_t uRead) {
                             if (error || uRead >= uLeft) {
                               pSelf->Close();
                             } else {
                               pSelf->OrClose([&] { pSelf->AwaitEnd(uLeft - uRead); });
                             }
                           });
}
