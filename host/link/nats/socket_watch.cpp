#include "host/link/nats/socket_watch.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
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

// The port that a socket is connected to; 0 for none.
uint16_t PeerPort(int iFd) {
  sockaddr_storage address{};
  socklen_t uLength = sizeof(address);
  if (getpeername(iFd, reinterpret_cast<sockaddr*>(&address), &uLength) != 0) {
    return 0;
  }
  if (address.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
  }
  return address.ss_family == AF_INET6 ? ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port) : 0;
}

// By a descriptor of its own, since the other may by now be closed and another socket's.
void ShutDown(int iFd, unsigned long uInode, uint16_t uPort) {
  const int iOwn = fcntl(iFd, F_DUPFD_CLOEXEC, 0);
  if (iOwn < 0) {
    return;
  }
  if (SocketInode(iOwn) == uInode && PeerPort(iOwn) == uPort) {
    shutdown(iOwn, SHUT_RDWR);
  }
  close(iOwn);
}

}  // namespace

CSocketWatch::CSocketWatch(uint16_t uPort, std::chrono::milliseconds limit, std::function<bool()> isCancelled)
    : m_uPort(uPort),
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
  std::unique_lock lock(m_mutex);
  while (!m_condition.wait_for(lock, kLook, [this] { return m_bDone; })) {
    const bool bOver = std::chrono::steady_clock::now() >= until;
    m_bOver = m_bOver || bOver;
    if (!bOver && !m_isCancelled()) {
      continue;
    }
    try {
      ForEachSocket([this](int iFd, unsigned long uInode) {
        if (m_setBefore.count(uInode) == 0) {
          ShutDown(iFd, uInode, m_uPort);
        }
      });
    } catch (const std::exception&) {
      // There is no memory now: the next look may have some.
    }
  }
}
