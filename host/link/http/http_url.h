// The URL that batches are sent to.
#ifndef QMLOGCACHE_HOST_LINK_HTTP_HTTP_URL_H_
#define QMLOGCACHE_HOST_LINK_HTTP_HTTP_URL_H_

#include <string>

struct HttpUrl {
  bool bTls = false;
  bool bLoopback = false;  // the host is this machine by its very name: nobody else hears what is sent
  std::string strForLog;   // without the query, which may hold a secret
};

// Reads an http or https URL. Empty, or what is wrong with it in words that name no secret. Throws std::bad_alloc.
[[nodiscard]] std::string ReadHttpUrl(const std::string& strUrl, HttpUrl& url);

#endif  // QMLOGCACHE_HOST_LINK_HTTP_HTTP_URL_H_
