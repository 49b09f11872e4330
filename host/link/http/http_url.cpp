#include "host/link/http/http_url.h"

#include <curl/curl.h>

#include <memory>
#include <new>

#include "host/link/loopback_name.h"

namespace {

using UrlHandle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

bool HasPart(CURLU* pUrl, CURLUPart part, std::string& strPart, unsigned int uFlags = 0) {
  char* pszPart = nullptr;
  const CURLUcode code = curl_url_get(pUrl, part, &pszPart, uFlags);
  if (code == CURLUE_OUT_OF_MEMORY) {
    throw std::bad_alloc();
  }
  const std::unique_ptr<char, decltype(&curl_free)> part_text(pszPart, curl_free);
  strPart = code == CURLUE_OK ? pszPart : "";
  return code == CURLUE_OK;
}

}  // namespace

std::string ReadHttpUrl(const std::string& strUrl, HttpUrl& url) {
  for (const char c : strUrl) {
    // What libcurl would let pass in a path has no business in a request line.
    if (static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) >= 0x7f) {
      return "the URL holds a byte that must be percent-encoded";
    }
  }
  const UrlHandle handle(curl_url(), curl_url_cleanup);
  if (!handle) {
    throw std::bad_alloc();
  }
  const CURLUcode code = curl_url_set(handle.get(), CURLUPART_URL, strUrl.c_str(), CURLU_NON_SUPPORT_SCHEME);
  if (code == CURLUE_OUT_OF_MEMORY) {
    throw std::bad_alloc();
  }
  std::string strScheme;
  if (code != CURLUE_OK || !HasPart(handle.get(), CURLUPART_SCHEME, strScheme)) {
    return "the URL cannot be read: it begins with http:// or https:// and a host";
  }
  if (strScheme != "http" && strScheme != "https") {
    return "the URL's scheme is " + strScheme + ": only http and https are known";
  }
  std::string strPart;
  if (HasPart(handle.get(), CURLUPART_USER, strPart) || HasPart(handle.get(), CURLUPART_PASSWORD, strPart)) {
    return "the URL holds a user or a password, which would not stay secret: use token_file or client_cert";
  }
  if (HasPart(handle.get(), CURLUPART_FRAGMENT, strPart)) {
    return "the URL ends in a fragment (#), which no server is sent";
  }
  std::string strHost;
  if (!HasPart(handle.get(), CURLUPART_HOST, strHost) || strHost.empty()) {
    return "the URL names no host";
  }
  url.bTls = strScheme == "https";
  url.bLoopback = IsLoopbackName(strHost);
  url.strForLog = strUrl.substr(0, strUrl.find('?'));
  return {};
}
