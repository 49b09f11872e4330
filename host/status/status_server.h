// The HTTP server of the status: GET and HEAD of a few small documents, on a loopback address.
//
// One thread serves all connections, and an answer ends its connection. A connection that has not brought its request
// within kRequestTimeout is closed; when all kMostConnections places are taken, the one that has been waiting longest is
// closed in favour of a new one, so that clients who hold connections keep nobody out. A request is at most
// kLongestRequest bytes and has no body.
//
// A request that does not name this very address (or localhost) as its host is refused, so that no web page can reach
// the server under a name of its own; no answer gives another origin leave to read it.
#ifndef QMLOGCACHE_HOST_STATUS_STATUS_SERVER_H_
#define QMLOGCACHE_HOST_STATUS_STATUS_SERVER_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/status/status_options.h"

inline constexpr std::chrono::seconds kRequestTimeout{15};
inline constexpr size_t kMostConnections = 32;
inline constexpr size_t kLongestRequest = 8192;

struct StatusDocument {
  const char* pszType = "text/plain; charset=utf-8";
  std::string strBody;
};

class IStatusServer {
 public:
  virtual ~IStatusServer() = default;  // stops
  // Takes the address and serves. An address that cannot be taken is told in the log and tried again at each tick. False
  // with a reason when there is no thread to be had.
  virtual bool Start(std::string& strError) = 0;
  // Returns when no handler runs any more.
  virtual void Stop() = 0;
};

struct StatusHandlers {
  // The document at a target such as "/metrics"; nothing when there is none. On the server's thread.
  std::function<std::optional<StatusDocument>(std::string_view svTarget)> fnDocument;
  // Called on the server's thread, at its start and then at this pace.
  std::function<void()> fnTick;
  std::chrono::milliseconds tick{2000};
  std::chrono::milliseconds requestTimeout = kRequestTimeout;
};

std::unique_ptr<IStatusServer> CreateStatusServer(const StatusOptions& options, StatusHandlers handlers);

#endif  // QMLOGCACHE_HOST_STATUS_STATUS_SERVER_H_
