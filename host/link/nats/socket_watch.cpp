#include "host/link/nats/socket_watch.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "host/router/thread_setup.h"

namespace {

constexpr std::chrono::milliseconds kLook{50};

struct DirectoryCloser {
  void operator()(DIR* pDirectory) const { closedir(pDirectory); }
};

// What a descriptor of this process is a socket of, by its inode; 0 when it is none. Looks at the name alone: the
// descriptors are other threads'.
unsigned long SocketInode(int iFd) {
  std::array<char, 64> acText{};
  const std::string strPath = "/proc/self/fd/" + std::to_string(iFd);
  constexpr std::string_view kBegin = "socket:[";
  const ssize_t iLength = readlink(strPath.c_str(), acText.data(), acText.size() - 1);
  const std::string_view svText(acText.data(), iLength > 0 ? static_cast<size_t>(iLength) : 0);
  return svText.starts_with(kBegin) ? std::strtoul(acText.data() + kBegin.size(), nullptr, 10) : 0;
}

// Calls take(descriptor, inode) for each socket of this process.
template <typename TTake>
void ForEachSocket(TTake take) {
  const std::unique_ptr<DIR, DirectoryCloser> directory(opendir("/proc/self/fd"));
  if (!directory) {
    return;
  }
  while (const dirent* pEntry = readdir(directory.get())) {
    char* pszEnd = nullptr;
    const int iFd = static_cast<int>(std::strtol(pEntry->d_name, &pszEnd, 10));
    const unsigned long uInode = *pszEnd == '\0' ? SocketInode(iFd) : 0;
    if (uInode != 0) {
      take(iFd, uInode);
    }
  }
}

std::set<unsigned long> ListSockets() {
  std::set<unsigned long> setSockets;
  ForEachSocket([&](int, unsigned long uInode) { setSockets.insert(uInode); });
  return setSockets;
}

// Family, address and port, without what does not tell a server (flow, scope); all zero for none.
using Endpoint = std::array<unsigned char, sizeof(sa_family_t) + sizeof(in6_addr) + sizeof(in_port_t)>;

template <typename TAddress>
Endpoint MakeEndpoint(sa_family_t family, const TAddress& address, in_port_t port) {
  Endpoint endpoint{};
  std::memcpy(endpoint.data(), &family, sizeof(family));
  std::memcpy(endpoint.data() + sizeof(family), &port, sizeof(port));
  std::memcpy(endpoint.data() + sizeof(family) + sizeof(port), &address, sizeof(address));
  return endpoint;
}

Endpoint EndpointOf(const sockaddr* pAddress) {
  if (pAddress->sa_family == AF_INET) {
    const auto* pV4 = reinterpret_cast<const sockaddr_in*>(pAddress);
    return MakeEndpoint(AF_INET, pV4->sin_addr, pV4->sin_port);
  }
  if (pAddress->sa_family == AF_INET6) {
    const auto* pV6 = reinterpret_cast<const sockaddr_in6*>(pAddress);
    return MakeEndpoint(AF_INET6, pV6->sin6_addr, pV6->sin6_port);
  }
  return {};
}

// What a socket is connected to.
Endpoint PeerOf(int iFd) {
  sockaddr_storage address{};
  socklen_t uLength = sizeof(address);
  const bool bConnected = getpeername(iFd, reinterpret_cast<sockaddr*>(&address), &uLength) == 0;
  return bConnected ? EndpointOf(reinterpret_cast<const sockaddr*>(&address)) : Endpoint{};
}

void LookUp(const std::string& strHost, uint16_t uPort, std::set<Endpoint>& setEndpoints) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* pRaw = nullptr;
  if (getaddrinfo(strHost.c_str(), std::to_string(uPort).c_str(), &hints, &pRaw) != 0) {
    return;
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> found(pRaw, freeaddrinfo);
  for (const addrinfo* pOne = pRaw; pOne != nullptr; pOne = pOne->ai_next) {
    setEndpoints.insert(EndpointOf(pOne->ai_addr));
  }
  setEndpoints.erase(Endpoint{});
}

// By a descriptor of its own, since the other may by now be closed and another socket's.
void ShutDown(int iFd, unsigned long uInode, const std::set<Endpoint>& setEndpoints) {
  const int iOwn = fcntl(iFd, F_DUPFD_CLOEXEC, 0);
  if (iOwn < 0) {
    return;
  }
  if (SocketInode(iOwn) == uInode && setEndpoints.count(PeerOf(iOwn)) != 0) {
    shutdown(iOwn, SHUT_RDWR);
  }
  close(iOwn);
}

std::string WithoutBrackets(const std::string& strHost) {
  const bool bBrackets = strHost.starts_with('[') && strHost.ends_with(']');
  return bBrackets ? strHost.substr(1, strHost.size() - 2) : strHost;
}

}  // namespace

CSocketWatch::CSocketWatch(const std::string& strHost, uint16_t uPort, std::chrono::milliseconds limit,
                           std::function<bool()> isCancelled)
    : m_strHost(WithoutBrackets(strHost)),
      m_uPort(uPort),
      m_isCancelled(std::move(isCancelled)),
      m_setBefore(ListSockets()),
      m_thread([this, limit] { Run(limit); }) {}

CSocketWatch::~CSocketWatch() {
  {
    const std::lock_guard lock(m_mutex);
    m_bDone = true;
  }
  m_condition.notify_all();
  m_thread.join();
}

bool CSocketWatch::IsOver() const {
  const std::lock_guard lock(m_mutex);
  return m_bOver;
}

// The attempt may be between two calls, or open another socket: it is looked after until it is over.
void CSocketWatch::Run(std::chrono::milliseconds limit) {
  SetUpThread("qmhost-watch");
  const auto until = std::chrono::steady_clock::now() + limit;
  std::set<Endpoint> setEndpoints;
  std::unique_lock lock(m_mutex);
  while (!m_condition.wait_for(lock, kLook, [this] { return m_bDone; })) {
    const bool bOver = std::chrono::steady_clock::now() >= until;
    m_bOver = m_bOver || bOver;
    if (!bOver && !m_isCancelled()) {
      continue;
    }
    lock.unlock();
    try {
      LookUp(m_strHost, m_uPort, setEndpoints);
      ForEachSocket([&](int iFd, unsigned long uInode) {
        if (m_setBefore.count(uInode) == 0) {
          ShutDown(iFd, uInode, setEndpoints);
        }
      });
    } catch (const std::exception&) {
      // There is no memory now: the next look may have some.
    }
    lock.lock();
  }
}
