#include "host/status/http_answers.h"

#include <algorithm>
#include <array>
#include <boost/beast/core/string.hpp>
#include <utility>

namespace {

namespace http = boost::beast::http;

struct FixedHeader {
  const char* pszName;
  const char* pszValue;
};

constexpr std::array<FixedHeader, 9> kHeaders = {{
    {"Cache-Control", "no-store"},
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src data:; base-uri 'none'; "
     "form-action 'none'; frame-ancestors 'none'"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Permissions-Policy", "camera=(), geolocation=(), microphone=()"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Server", "qmhost"},
}};

StatusResponse MakeResponse(http::status status, const char* pszType, std::string strBody) {
  StatusResponse response(status, 11);
  for (const FixedHeader& header : kHeaders) {
    response.set(header.pszName, header.pszValue);
  }
  response.set(http::field::content_type, pszType);
  response.keep_alive(false);
  response.body() = std::move(strBody);
  response.prepare_payload();
  return response;
}

}  // namespace

bool IsOwnHost(std::string_view svHost, const StatusOptions& options) {
  const bool bSixth = options.strAddress.find(':') != std::string::npos;
  const std::string strAddress = bSixth ? "[" + options.strAddress + "]" : options.strAddress;
  const std::string strPort = ":" + std::to_string(options.uPort);
  const auto fnIs = [&](const std::string& strName) {
    return boost::beast::iequals({svHost.data(), svHost.size()}, strName) ||
           boost::beast::iequals({svHost.data(), svHost.size()}, strName + strPort);
  };
  return fnIs(strAddress) || fnIs("localhost");
}

StatusResponse AnswerFailure(http::status status, std::string_view svText) {
  return MakeResponse(status, "text/plain; charset=utf-8", std::string(svText) + "\n");
}

StatusResponse AnswerRequest(const StatusRequest& request, const StatusOptions& options,
                             const std::function<std::optional<StatusDocument>(std::string_view)>& fnDocument) {
  if (request.count(http::field::host) != 1 ||
      !IsOwnHost({request[http::field::host].data(), request[http::field::host].size()}, options)) {
    return AnswerFailure(http::status::misdirected_request, "This server is not the one that was asked for.");
  }
  if (request.method() != http::verb::get && request.method() != http::verb::head) {
    StatusResponse response = AnswerFailure(http::status::method_not_allowed, "Only GET and HEAD.");
    response.set(http::field::allow, "GET, HEAD");
    return response;
  }
  std::optional<StatusDocument> optDocument = fnDocument({request.target().data(), request.target().size()});
  StatusResponse response = optDocument
                                ? MakeResponse(http::status::ok, optDocument->pszType, std::move(optDocument->strBody))
                                : AnswerFailure(http::status::not_found, "There is nothing at this place.");
  if (request.method() == http::verb::head) {
    response.body().clear();  // Content-Length stays that of the document
  }
  return response;
}
