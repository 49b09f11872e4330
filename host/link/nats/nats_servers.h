// The servers that the nats driver may connect to.
#ifndef QMLOGCACHE_HOST_LINK_NATS_NATS_SERVERS_H_
#define QMLOGCACHE_HOST_LINK_NATS_NATS_SERVERS_H_

#include <string>
#include <string_view>
#include <vector>

struct NatsServers {
  std::vector<std::string> vecUrls;  // nats://HOST:PORT or tls://HOST:PORT
  bool bTls = false;                 // of all or of none
  bool bLoopback = false;            // every host is this machine by its very name: nobody else hears what is sent
};

// Reads a list of URLs, comma-separated; nats:// when there is no scheme, port 4222 when there is none. Empty, or what
// is wrong in words that name no secret. Throws std::bad_alloc.
[[nodiscard]] std::string ReadNatsServers(std::string_view svList, NatsServers& servers);

#endif  // QMLOGCACHE_HOST_LINK_NATS_NATS_SERVERS_H_
