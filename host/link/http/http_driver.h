// The http driver: records leave as gzip-compressed batches of JSON lines, each batch one POST request. What the server
// must do is told in docs/links.md.
//
// Files of this folder: http_driver (threads and states), batch_queue (what goes into the next request), batch_body
// (its bytes), transfers (libcurl), http_answer (what an answer means), retry_after, http_url.
#ifndef QMLOGCACHE_HOST_LINK_HTTP_HTTP_DRIVER_H_
#define QMLOGCACHE_HOST_LINK_HTTP_HTTP_DRIVER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "host/link/link_driver.h"

struct HttpDriverOptions {
  std::string strUrl;               // checked with CheckHttpUrl
  std::string strCaFile;            // PEM; the only authorities that are trusted. Empty: the system's
  std::string strClientCert;        // PEM; empty for none
  std::string strClientKey;         // PEM without a passphrase; empty: it stands in the certificate's file
  std::string strTokenFile;         // bearer token; empty for none
  std::string strProxy;             // URL; empty: none, whatever the environment says; "environment": what it says
  std::string strAgentId;           // UUID, the same for ever: part of every record's id
  unsigned int uTimeoutMs = 30000;  // how long an answer may take, or a transfer that does not move
  unsigned int uConnectTimeoutMs = 10000;  // name, connection and TLS handshake
  unsigned int uLongestBackOffMs = 60000;  // the longest pause between two attempts, but for what the server asks for
  size_t uBatchBytes = 1U << 20;           // text of the records of one batch; a longer record goes alone
  unsigned int uRequests = 2;              // at the same time
  uint64_t u64Seed = 0;                    // of the pauses; 0: from the system
};

// Stop gives the records that it finds three seconds to be delivered, while the link is up.
std::unique_ptr<ILinkDriver> CreateHttpDriver(const HttpDriverOptions& options);

#endif  // QMLOGCACHE_HOST_LINK_HTTP_HTTP_DRIVER_H_
