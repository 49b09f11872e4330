#include "host/ingress/ingress_server.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "host/ingress/connection.h"
#include "host/ingress/limited_log.h"
#include "host/ingress/socket_path.h"
#include "host/service/loop.h"

namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using std::chrono::milliseconds;

constexpr milliseconds kAcceptRetryDelay{100};
constexpr milliseconds kLongestCheckPeriod{1000};
constexpr milliseconds kShortestCheckPeriod{10};
// How long a stop waits for producers to read their last answers.
constexpr milliseconds kStopGrace{2000};

// What the rest of the process may open while every connection is taken.
constexpr rlim_t kDescriptorsLeft = 64;

// How many connections the process has descriptors for; one at least.
uint32_t LimitConnections(uint32_t uWanted) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return uWanted;
  }
  const rlim_t uPossible = limit.rlim_cur > kDescriptorsLeft ? limit.rlim_cur - kDescriptorsLeft : 1;
  return static_cast<uint32_t>(std::min<rlim_t>(uWanted, uPossible));
}

// Threads started inside the scope inherit a mask that blocks every signal.
class CSignalsBlocked {
 public:
  CSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_old);
  }
  ~CSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_old, nullptr); }
  CSignalsBlocked(const CSignalsBlocked&) = delete;
  CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

 private:
  sigset_t m_old{};
};

class CIngressServer : public IIngressServer {
 public:
  CIngressServer(const IngressOptions& options, IRouter& router)
      : m_options(options),
        m_environment{m_options, router, m_log, [this](CConnection* pConnection) { Forget(pConnection); }},
        m_work(asio::make_work_guard(m_ioContext)),
        m_acceptor(asio::make_strand(m_ioContext)),
        m_acceptTimer(m_acceptor.get_executor()),
        m_checkTimer(m_acceptor.get_executor()),
        m_checkPeriod(
            std::clamp(milliseconds(m_options.uStallTimeoutMs / 4), kShortestCheckPeriod, kLongestCheckPeriod)) {}

  ~CIngressServer() override { Stop(); }

  bool Start(std::string& strError) override;
  void Stop() override;

 private:
  using Connections = std::unordered_map<CConnection*, std::shared_ptr<CConnection>>;

  bool Listen(std::string& strError);
  bool StartThreads(std::string& strError);
  void RunThread() noexcept;
  void PostTurn() noexcept;
  void AcceptNext();
  void OnAccepted(const error_code& error, CConnection::Socket socket);
  void Admit(CConnection::Socket socket);
  bool IsAllowed(uid_t uUser) const;
  void AcceptLater();
  void CheckLater();
  void EndConnections();
  void Forget(CConnection* pConnection);
  std::vector<std::shared_ptr<CConnection>> LiveConnections();
  template <typename Function>
  void Guarded(Function fnWork) noexcept;

  const IngressOptions m_options;
  uint32_t m_uMaxConnections = 0;  // set before the first connection
  CLimitedLog m_log;
  const CConnection::Environment m_environment;
  CSocketPath m_path;

  asio::io_context m_ioContext;
  asio::executor_work_guard<asio::io_context::executor_type> m_work;
  // The acceptor and both timers are used on the acceptor's strand once the threads run.
  asio::basic_socket_acceptor<asio::local::stream_protocol, CConnection::Strand> m_acceptor;
  asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>,
                             CConnection::Strand>
      m_acceptTimer;
  asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>,
                             CConnection::Strand>
      m_checkTimer;
  const milliseconds m_checkPeriod;

  std::mutex m_mutex;  // guards m_mapConnections and m_bStopping
  std::condition_variable m_noneLeft;
  Connections m_mapConnections;
  bool m_bStopping = false;

  std::atomic<bool> m_bTurnPosted = false;
  CLoop m_loop{"qmhost-intake", [this] { PostTurn(); }};

  std::vector<std::thread> m_vecThreads;  // used by Start and Stop only
  bool m_bStarted = false;                // likewise
};

bool CIngressServer::Start(std::string& strError) {
  if (m_bStarted) {
    strError = "an ingress server starts once";
    return false;
  }
  if (m_options.uThreads == 0 || m_options.uWindow == 0 || m_options.uMaxFrame < kIngressMessageHeaderSize ||
      m_options.uMaxFrame > UINT32_MAX - kIngressPrefixSize) {
    strError = "the ingress needs a thread, a window of one message and frames of " +
               std::to_string(kIngressMessageHeaderSize) + " bytes at least";
    return false;
  }
  m_bStarted = true;
  m_uMaxConnections = LimitConnections(m_options.uMaxConnections);
  if (m_uMaxConnections < m_options.uMaxConnections) {
    m_log.Warn(CLimitedLog::Kind::TooManyConnections,
               "at most " + std::to_string(m_uMaxConnections) + " connections instead of " +
                   std::to_string(m_options.uMaxConnections) + ": the process may not open more files");
  }
  if (!Listen(strError)) {
    Stop();
    return false;
  }
  AcceptNext();
  CheckLater();
  if (!StartThreads(strError)) {
    Stop();
    return false;
  }
  m_log.Note("taking messages on " + m_options.strSocketPath);
  return true;
}

bool CIngressServer::Listen(std::string& strError) {
  if (!m_path.Prepare(m_options.strSocketPath, strError)) {
    return false;
  }
  const auto fnFailed = [&](const char* pszWhat, const error_code& error) {
    strError = std::string("cannot ") + pszWhat + " the socket '" + m_options.strSocketPath + "': " + error.message();
    return false;
  };
  error_code error;
  const asio::local::stream_protocol::endpoint endpoint(m_options.strSocketPath);
  m_acceptor.open(endpoint.protocol(), error);
  if (error) {
    return fnFailed("open", error);
  }
  m_acceptor.bind(endpoint, error);
  if (error) {
    return fnFailed("bind", error);
  }
  if (!m_path.Adopt(strError)) {
    return false;
  }
  m_acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) {
    return fnFailed("listen on", error);
  }
  return true;
}

bool CIngressServer::StartThreads(std::string& strError) {
  const CSignalsBlocked blocked;
  try {
    for (unsigned int i = 0; i < m_options.uThreads; ++i) {
      m_vecThreads.emplace_back([this] { RunThread(); });
      pthread_setname_np(m_vecThreads.back().native_handle(), "qmhost-intake");
    }
  } catch (const std::exception& error) {
    strError = std::string("cannot start an intake thread: ") + error.what();
    return false;
  }
  return true;
}

void CIngressServer::RunThread() noexcept {
  const CLoopThread loopThread(m_loop);
  for (;;) {
    try {
      m_ioContext.run();
      return;
    } catch (const std::exception& error) {
      m_log.Warn(CLimitedLog::Kind::InternalError, error.what());
    } catch (...) {
      m_log.Warn(CLimitedLog::Kind::InternalError, "an unknown error");
    }
  }
}

// The turn goes the way of a new connection. One is under way at a time, however long a component keeps the threads.
void CIngressServer::PostTurn() noexcept {
  if (m_bTurnPosted.exchange(true)) {
    return;
  }
  try {
    asio::post(m_acceptor.get_executor(), [this] {
      m_bTurnPosted = false;
      m_loop.Turn();
    });
  } catch (const std::exception&) {
    m_bTurnPosted = false;  // no memory now; the next look asks again
  }
}

template <typename Function>
void CIngressServer::Guarded(Function fnWork) noexcept {
  try {
    fnWork();
  } catch (const std::exception& error) {
    m_log.Warn(CLimitedLog::Kind::InternalError, error.what());
  }
}

void CIngressServer::AcceptNext() {
  m_acceptor.async_accept(asio::make_strand(m_ioContext), [this](const error_code& error, CConnection::Socket socket) {
    OnAccepted(error, std::move(socket));
  });
}

void CIngressServer::OnAccepted(const error_code& error, CConnection::Socket socket) {
  if (error == asio::error::operation_aborted || !m_acceptor.is_open()) {
    return;
  }
  if (!error) {
    Guarded([&] { Admit(std::move(socket)); });
  } else if (error != asio::error::connection_aborted) {
    // Out of descriptors or memory: trying again at once would only spin.
    Guarded([&] { m_log.Warn(CLimitedLog::Kind::AcceptError, "cannot accept a connection: " + error.message()); });
    AcceptLater();
    return;
  }
  AcceptNext();
}

void CIngressServer::AcceptLater() {
  m_acceptTimer.expires_after(kAcceptRetryDelay);
  m_acceptTimer.async_wait([this](const error_code& error) {
    if (!error && m_acceptor.is_open()) {
      AcceptNext();
    }
  });
}

void CIngressServer::Admit(CConnection::Socket socket) {
  ucred peer{};
  socklen_t uSize = sizeof(peer);
  if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &uSize) != 0) {
    m_log.Warn(CLimitedLog::Kind::PeerRefused, "refused a connection without credentials");
    return;
  }
  const std::string strPeer =
      "producer of user " + std::to_string(peer.uid) + " (process " + std::to_string(peer.pid) + ")";
  if (!IsAllowed(peer.uid)) {
    m_log.Warn(CLimitedLog::Kind::PeerRefused, strPeer + ": refused, the user may not send");
    return;
  }
  const auto pConnection = std::make_shared<CConnection>(std::move(socket), m_environment, strPeer);
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bStopping) {
      return;
    }
    if (m_mapConnections.size() >= m_uMaxConnections) {
      m_log.Warn(CLimitedLog::Kind::TooManyConnections,
                 strPeer + ": refused, " + std::to_string(m_uMaxConnections) + " connections are open");
      return;
    }
    m_mapConnections.emplace(pConnection.get(), pConnection);
  }
  pConnection->Start();
}

bool CIngressServer::IsAllowed(uid_t uUser) const {
  return uUser == 0 || uUser == ::geteuid() ||
         std::find(m_options.vecAllowedUsers.begin(), m_options.vecAllowedUsers.end(), uUser) !=
             m_options.vecAllowedUsers.end();
}

// One coarse timer for all connections: a message never touches a timer.
void CIngressServer::CheckLater() {
  m_checkTimer.expires_after(m_checkPeriod);
  m_checkTimer.async_wait([this](const error_code& error) {
    if (error || !m_acceptor.is_open()) {
      return;
    }
    Guarded([this] {
      for (const auto& pConnection : LiveConnections()) {
        pConnection->Check();
      }
    });
    CheckLater();
  });
}

std::vector<std::shared_ptr<CConnection>> CIngressServer::LiveConnections() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<std::shared_ptr<CConnection>> vecLive;
  vecLive.reserve(m_mapConnections.size());
  for (const auto& [pKey, pConnection] : m_mapConnections) {
    vecLive.push_back(pConnection);
  }
  return vecLive;
}

void CIngressServer::Forget(CConnection* pConnection) {
  // Destroyed after the lock is given back.
  Connections::node_type node;
  const std::lock_guard<std::mutex> lock(m_mutex);
  node = m_mapConnections.extract(pConnection);
  if (m_mapConnections.empty()) {
    m_noneLeft.notify_all();
  }
}

void CIngressServer::Stop() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_bStarted || std::exchange(m_bStopping, true)) {
      return;
    }
  }
  const auto fnEndListening = [this] {
    error_code ignored;
    m_acceptor.close(ignored);
    m_acceptTimer.cancel();
    m_checkTimer.cancel();
  };
  if (m_vecThreads.empty()) {
    fnEndListening();
  } else {
    asio::post(m_acceptor.get_executor(), fnEndListening);
    EndConnections();
  }
  m_work.reset();
  for (std::thread& thread : m_vecThreads) {
    thread.join();
  }
  m_path.Remove();
  m_log.Note("stopped");
}

// A connection busy in a component ends when that call returns; the wait for it is not bounded here.
void CIngressServer::EndConnections() {
  for (const auto& pConnection : LiveConnections()) {
    pConnection->BeginStop();
  }
  std::unique_lock<std::mutex> lock(m_mutex);
  const auto fnNone = [this] { return m_mapConnections.empty(); };
  if (m_noneLeft.wait_for(lock, std::min(kStopGrace, milliseconds(m_options.uStallTimeoutMs)), fnNone)) {
    return;
  }
  lock.unlock();
  for (const auto& pConnection : LiveConnections()) {
    pConnection->Abort();
  }
  lock.lock();
  m_noneLeft.wait(lock, fnNone);
}

}  // namespace

std::unique_ptr<IIngressServer> CreateIngressServer(const IngressOptions& options, IRouter& router) {
  return std::make_unique<CIngressServer>(options, router);
}
