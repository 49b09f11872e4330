// Takes producers' connections on a Unix stream socket and hands their messages to the router.
//
// Each connection is served by one thread at a time of a small pool; a message is delivered to its component on that
// thread, and answers are collected and written together. A connection that breaks the rules is told why and closed;
// no other notices.
#ifndef QMLOGCACHE_HOST_INGRESS_INGRESS_SERVER_H_
#define QMLOGCACHE_HOST_INGRESS_INGRESS_SERVER_H_

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/protocol/ingress_protocol.h"
#include "host/router/router.h"

struct IngressOptions {
  std::string strSocketPath;                     // made with mode 0666; who may connect is decided by peer credentials
  std::vector<uid_t> vecAllowedUsers;            // beside root and the host's own user
  uint32_t uMaxFrame = kIngressDefaultMaxFrame;  // bytes after the prefix
  uint32_t uWindow = kIngressDefaultWindow;      // unanswered messages a connection
  uint32_t uStallTimeoutMs = 30000;              // how long a frame may stay unfinished, or answers unread
  uint32_t uMaxConnections = 1024;               // fewer when the process's limit of open files asks for it
  unsigned int uThreads = 2;
};

class IIngressServer {
 public:
  virtual ~IIngressServer() = default;
  // Binds and serves. False with a reason.
  virtual bool Start(std::string& strError) = 0;
  // Takes no more messages, writes the answers that are ready, closes every connection, removes the socket.
  virtual void Stop() = 0;
};

// The router must outlive the server.
std::unique_ptr<IIngressServer> CreateIngressServer(const IngressOptions& options, IRouter& router);

#endif  // QMLOGCACHE_HOST_INGRESS_INGRESS_SERVER_H_
