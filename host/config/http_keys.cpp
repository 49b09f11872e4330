#include "host/config/http_keys.h"

#include "host/link/http/http_url.h"

namespace {

constexpr auto kPart = &HostConfig::httpDriver;
constexpr uint64_t kMostMs = 600000;
constexpr uint64_t kHourMs = 3600000;

std::string SetUrl(std::string_view svValue, Target& target) {
  target.config.httpDriver.strUrl = svValue;
  HttpUrl url;
  return svValue.empty() ? std::string() : ReadHttpUrl(std::string(svValue), url);
}

std::string SetProxy(std::string_view svValue, Target& target) {
  target.config.httpDriver.strProxy = svValue;
  HttpUrl url;
  return svValue.empty() || svValue == "environment" ? std::string() : ReadHttpUrl(std::string(svValue), url);
}

}  // namespace

const std::vector<KeyRule>& HttpKeyRules() {
  static const std::vector<KeyRule> s_vecRules = {
      {"http", "url", "", SetUrl},
      {"http", "ca_file", "", SetFileOf<kPart, &HttpDriverOptions::strCaFile>},
      {"http", "client_cert", "", SetFileOf<kPart, &HttpDriverOptions::strClientCert>},
      {"http", "client_key", "", SetFileOf<kPart, &HttpDriverOptions::strClientKey>},
      {"http", "token_file", "", SetFileOf<kPart, &HttpDriverOptions::strTokenFile>},
      {"http", "proxy", "", SetProxy},
      {"http", "timeout_ms", "30000", SetNumberOf<kPart, &HttpDriverOptions::uTimeoutMs, 100, kMostMs>},
      {"http", "connect_timeout_ms", "10000", SetNumberOf<kPart, &HttpDriverOptions::uConnectTimeoutMs, 100, kMostMs>},
      {"http", "retry_max_ms", "60000", SetNumberOf<kPart, &HttpDriverOptions::uLongestBackOffMs, 100, kHourMs>},
      {"http", "batch_bytes", "1M",
       [](std::string_view sv, Target& t) {
         return SetSize(sv, 1U << 10, 256U << 20, t.config.httpDriver.uBatchBytes);
       }},
      {"http", "requests", "2", SetNumberOf<kPart, &HttpDriverOptions::uRequests, 1, 8>},
  };
  return s_vecRules;
}

KeyProblems HttpKeyProblems(const HttpDriverOptions& options) {
  KeyProblems problems;
  HttpUrl url;
  if (options.strUrl.empty()) {
    problems.emplace_back("url", "the driver http needs the url of a server");
    return problems;
  }
  if (!ReadHttpUrl(options.strUrl, url).empty()) {
    return problems;
  }
  AddTlsProblems(options, url.bTls, "the url is not https", problems);
  // A proxy takes even what is meant for this machine.
  if (!url.bTls && !options.strTokenFile.empty() && (!url.bLoopback || !options.strProxy.empty())) {
    problems.emplace_back("token_file", "the url is not https: the token would be sent for everybody to read");
  }
  return problems;
}
