#include "host/link/nats/nats_servers.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "host/link/loopback_name.h"

namespace {

constexpr size_t kMostServers = 32;
constexpr char kDefaultPort[] = "4222";

using UrlHandle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

// Empty when the URL has no such part.
std::string GetPart(CURLU* pUrl, CURLUPart part) {
  char* pszPart = nullptr;
  const CURLUcode code = curl_url_get(pUrl, part, &pszPart, 0);
  if (code == CURLUE_OUT_OF_MEMORY) {
    throw std::bad_alloc();
  }
  const std::unique_ptr<char, decltype(&curl_free)> text(pszPart, curl_free);
  return code == CURLUE_OK ? pszPart : "";
}

std::string ReadServer(const std::string& strServer, std::string& strUrl, bool& bTls, bool& bLoopback) {
  if (strServer.empty() ||
      std::any_of(strServer.begin(), strServer.end(), [](char c) { return c <= ' ' || c == '\x7f'; })) {
    return "a server's URL is empty or holds a byte that no URL has";
  }
  const UrlHandle handle(curl_url(), curl_url_cleanup);
  if (!handle) {
    throw std::bad_alloc();
  }
  const std::string strWhole = strServer.find("://") == std::string::npos ? "nats://" + strServer : strServer;
  const CURLUcode code = curl_url_set(handle.get(), CURLUPART_URL, strWhole.c_str(), CURLU_NON_SUPPORT_SCHEME);
  if (code == CURLUE_OUT_OF_MEMORY) {
    throw std::bad_alloc();
  }
  const std::string strHost = GetPart(handle.get(), CURLUPART_HOST);
  if (code != CURLUE_OK || strHost.empty()) {
    return "a server's URL cannot be read: it is nats://HOST:PORT or tls://HOST:PORT";
  }
  const std::string strScheme = GetPart(handle.get(), CURLUPART_SCHEME);
  if (strScheme != "nats" && strScheme != "tls") {
    return "a server's scheme is " + strScheme + ": only nats and tls are known";
  }
  if (!GetPart(handle.get(), CURLUPART_USER).empty() || !GetPart(handle.get(), CURLUPART_PASSWORD).empty()) {
    return "a server's URL holds a user or a token, which would not stay secret: use credentials_file, token_file or "
           "user and password_file";
  }
  const std::string strPath = GetPart(handle.get(), CURLUPART_PATH);
  if ((!strPath.empty() && strPath != "/") || !GetPart(handle.get(), CURLUPART_QUERY).empty() ||
      !GetPart(handle.get(), CURLUPART_FRAGMENT).empty()) {
    return "a server's URL ends behind its port";
  }
  std::string strPort = GetPart(handle.get(), CURLUPART_PORT);
  if (strPort.empty()) {
    strPort = kDefaultPort;
  }
  bTls = strScheme == "tls";
  bLoopback = IsLoopbackName(strHost);
  strUrl = strScheme + "://" + strHost + ":" + strPort;
  return {};
}

}  // namespace

std::string ReadNatsServers(std::string_view svList, NatsServers& servers) {
  servers = NatsServers();
  servers.bLoopback = true;
  for (bool bMore = true; bMore;) {
    const size_t uComma = svList.find(',');
    std::string_view svServer = svList.substr(0, uComma);
    bMore = uComma != std::string_view::npos;
    svList.remove_prefix(bMore ? uComma + 1 : svList.size());
    svServer.remove_prefix(std::min(svServer.find_first_not_of(" \t"), svServer.size()));
    svServer = svServer.substr(0, svServer.find_last_not_of(" \t") + 1);
    std::string strUrl;
    bool bTls = false;
    bool bLoopback = false;
    std::string strWrong = ReadServer(std::string(svServer), strUrl, bTls, bLoopback);
    if (!strWrong.empty()) {
      return strWrong;
    }
    if (!servers.vecUrls.empty() && bTls != servers.bTls) {
      return "some servers are tls:// and some are not: records must not go out in the clear by chance";
    }
    servers.bTls = bTls;
    servers.bLoopback = servers.bLoopback && bLoopback;
    servers.vecUrls.push_back(std::move(strUrl));
    if (servers.vecUrls.size() > kMostServers) {
      return "more than 32 servers";
    }
  }
  return {};
}
