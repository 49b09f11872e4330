// Ends a connection attempt of libnats that hangs.
//
// libnats waits for a TLS handshake without a limit, and for a server's first answer until the connection closes,
// whatever its own time-outs say; and it keeps its socket to itself. So a thread looks for the sockets of this process
// that are connected to the server's address and port and were not there when the attempt began, and shuts them down.
// The addresses of a name are looked up when it comes to that, and again at each look: they need not be the same ones
// that libnats was given before.
#ifndef QMLOGCACHE_HOST_LINK_NATS_SOCKET_WATCH_H_
#define QMLOGCACHE_HOST_LINK_NATS_SOCKET_WATCH_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

class CSocketWatch {
 public:
  // To be made before the attempt and to go after it. strHost: a name or an address, as in a URL. isCancelled: asked now
  // and then, on another thread; the attempt is to end before its limit. Must not throw. Throws std::exception.
  CSocketWatch(const std::string& strHost, uint16_t uPort, std::chrono::milliseconds limit,
               std::function<bool()> isCancelled);
  ~CSocketWatch();
  CSocketWatch(const CSocketWatch&) = delete;
  CSocketWatch& operator=(const CSocketWatch&) = delete;

  // Whether sockets have been shut down because the limit was over.
  bool IsOver() const;

 private:
  void Run(std::chrono::milliseconds limit);

  const std::string m_strHost;  // without the brackets of a URL
  const uint16_t m_uPort;
  const std::function<bool()> m_isCancelled;
  const std::set<unsigned long> m_setBefore;  // inodes
  mutable std::mutex m_mutex;                 // guards the two below the condition
  std::condition_variable m_condition;
  bool m_bDone = false;
  bool m_bOver = false;
  std::thread m_thread;
};

#endif  // QMLOGCACHE_HOST_LINK_NATS_SOCKET_WATCH_H_
