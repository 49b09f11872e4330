// What the status server answers to a request: decided without a socket.
#ifndef QMLOGCACHE_HOST_STATUS_HTTP_ANSWERS_H_
#define QMLOGCACHE_HOST_STATUS_HTTP_ANSWERS_H_

#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string>
#include <string_view>

#include "host/status/status_server.h"

using StatusRequest = boost::beast::http::request<boost::beast::http::empty_body>;
using StatusResponse = boost::beast::http::response<boost::beast::http::string_body>;

// Whether a Host header names this server: its address or localhost, with its port or none.
bool IsOwnHost(std::string_view svHost, const StatusOptions& options);

// The answer to a whole request; fnDocument as in StatusHandlers. Every answer has the security headers and ends the
// connection; that to HEAD has a body's length and no body.
StatusResponse AnswerRequest(const StatusRequest& request, const StatusOptions& options,
                             const std::function<std::optional<StatusDocument>(std::string_view)>& fnDocument);
// The answer to what is no request.
StatusResponse AnswerFailure(boost::beast::http::status status, std::string_view svText);

#endif  // QMLOGCACHE_HOST_STATUS_HTTP_ANSWERS_H_
