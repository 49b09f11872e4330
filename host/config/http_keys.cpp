#include "host/config/http_keys.h"

#include "host/link/http/http_url.h"

namespace {

constexpr uint64_t kMostMs = 600000;

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

// A file that may be named or not; whether it is there is found out when it is needed.
std::string SetFile(std::string_view svValue, const Target& target, std::string& strFile) {
  strFile.clear();
  return svValue.empty() ? std::string() : ReadPath(svValue, target.strPrefix, strFile);
}

}  // namespace

const std::vector<KeyRule>& HttpKeyRules() {
  static const std::vector<KeyRule> s_vecRules = {
      {"http", "url", "", SetUrl},
      {"http", "ca_file", "",
       [](std::string_view sv, Target& t) { return SetFile(sv, t, t.config.httpDriver.strCaFile); }},
      {"http", "client_cert", "",
       [](std::string_view sv, Target& t) { return SetFile(sv, t, t.config.httpDriver.strClientCert); }},
      {"http", "client_key", "",
       [](std::string_view sv, Target& t) { return SetFile(sv, t, t.config.httpDriver.strClientKey); }},
      {"http", "token_file", "",
       [](std::string_view sv, Target& t) { return SetFile(sv, t, t.config.httpDriver.strTokenFile); }},
      {"http", "proxy", "", SetProxy},
      {"http", "timeout_ms", "30000",
       [](std::string_view sv, Target& t) { return SetNumber(sv, 100, kMostMs, t.config.httpDriver.uTimeoutMs); }},
      {"http", "connect_timeout_ms", "10000",
       [](std::string_view sv, Target& t) {
         return SetNumber(sv, 100, kMostMs, t.config.httpDriver.uConnectTimeoutMs);
       }},
      {"http", "retry_max_ms", "60000",
       [](std::string_view sv, Target& t) {
         return SetNumber(sv, 100, 3600000, t.config.httpDriver.uLongestBackOffMs);
       }},
      {"http", "batch_bytes", "1M",
       [](std::string_view sv, Target& t) {
         return SetSize(sv, 1U << 10, 256U << 20, t.config.httpDriver.uBatchBytes);
       }},
      {"http", "requests", "2",
       [](std::string_view sv, Target& t) { return SetNumber(sv, 1, 8, t.config.httpDriver.uRequests); }},
  };
  return s_vecRules;
}

std::vector<std::pair<std::string, std::string>> HttpKeyProblems(const HttpDriverOptions& options) {
  std::vector<std::pair<std::string, std::string>> vecProblems;
  HttpUrl url;
  if (options.strUrl.empty()) {
    vecProblems.emplace_back("url", "the driver http needs the url of a server");
    return vecProblems;
  }
  if (!ReadHttpUrl(options.strUrl, url).empty()) {
    return vecProblems;
  }
  if (!options.strClientKey.empty() && options.strClientCert.empty()) {
    vecProblems.emplace_back("client_key", "there is no client_cert that it belongs to");
  }
  if (url.bTls) {
    return vecProblems;
  }
  // Whoever names an authority or a certificate expects a connection that nobody else can read.
  for (const auto& [pszKey, strFile] :
       {std::pair{"ca_file", options.strCaFile}, std::pair{"client_cert", options.strClientCert}}) {
    if (!strFile.empty()) {
      vecProblems.emplace_back(pszKey, "the url is not https");
    }
  }
  // A proxy takes even what is meant for this machine.
  if (!options.strTokenFile.empty() && (!url.bLoopback || !options.strProxy.empty())) {
    vecProblems.emplace_back("token_file", "the url is not https: the token would be sent for everybody to read");
  }
  return vecProblems;
}
