#include "host/status/status_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

thread_local bool t_bStarved = false;

}  // namespace

// What Boost.Asio keeps its handlers in. There is none for a thread that is starved.
extern "C" void* aligned_alloc(size_t uAlignment, size_t uSize) noexcept {
  void* pMemory = nullptr;
  return !t_bStarved && posix_memalign(&pMemory, uAlignment, uSize) == 0 ? pMemory : nullptr;
}

namespace {

// How long a test waits for what must come, before it fails instead of hanging.
constexpr int kHangGuardMs = 60000;

class CSocket {
 public:
  CSocket() : m_iSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~CSocket() { close(m_iSocket); }
  CSocket(CSocket&& other) noexcept : m_iSocket(std::exchange(other.m_iSocket, -1)) {}
  CSocket& operator=(CSocket&&) = delete;

  int Get() const { return m_iSocket; }
  void Send(const std::string& strText) const { send(m_iSocket, strText.data(), strText.size(), MSG_NOSIGNAL); }
  // All that comes until the end; "hangs" when that does not come.
  std::string ReadAll() const {
    std::string strAll;
    char acBytes[4096];
    for (;;) {
      pollfd descriptor{m_iSocket, POLLIN, 0};
      if (poll(&descriptor, 1, kHangGuardMs) != 1) {
        return "hangs";
      }
      const ssize_t iRead = recv(m_iSocket, acBytes, sizeof(acBytes), 0);
      if (iRead <= 0) {
        return strAll;
      }
      strAll.append(acBytes, static_cast<size_t>(iRead));
    }
  }

 private:
  int m_iSocket;
};

sockaddr_in Loopback(uint16_t uPort) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// An address that does so too may be taken as long as nobody listens there.
void ShareAddress(const CSocket& socket) {
  const int iOn = 1;
  EXPECT_EQ(setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn)), 0);
}

// It is held by a socket that does not listen, so that no other program is given it meanwhile.
uint16_t FreePort(const CSocket& holder) {
  ShareAddress(holder);
  sockaddr_in address = Loopback(0);
  socklen_t uSize = sizeof(address);
  EXPECT_EQ(bind(holder.Get(), reinterpret_cast<const sockaddr*>(&address), uSize), 0);
  EXPECT_EQ(getsockname(holder.Get(), reinterpret_cast<sockaddr*>(&address), &uSize), 0);
  return ntohs(address.sin_port);
}

class StatusServerTest : public ::testing::Test {
 protected:
  void Start() {
    std::string strError;
    ASSERT_TRUE(m_pServer->Start(strError)) << strError;
  }
  void AwaitTicks(unsigned int uCount) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kHangGuardMs);
    for (const unsigned int uTicks = m_uTicks + uCount; m_uTicks < uTicks;) {
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      std::this_thread::yield();
    }
  }
  CSocket Connect() const {
    CSocket client;
    const sockaddr_in address = Loopback(m_options.uPort);
    EXPECT_EQ(connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return client;
  }
  std::string Ask(const std::string& strRequest) const {
    const CSocket client = Connect();
    client.Send(strRequest);
    return client.ReadAll();
  }
  std::string Get(const std::string& strTarget) const {
    return Ask("GET " + strTarget + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
  }
  static std::string StatusLine(const std::string& strAnswer) { return strAnswer.substr(0, strAnswer.find('\r')); }

  std::atomic<bool> m_bStarve{false};
  const CSocket m_holder;
  const StatusOptions m_options{"127.0.0.1", FreePort(m_holder)};
  std::atomic<unsigned int> m_uTicks{0};
  std::promise<void> m_ticked;
  std::unique_ptr<IStatusServer> m_pServer = CreateStatusServer(
      m_options, {[](std::string_view svTarget) {
                    if (svTarget == "/throw") {
                      throw std::runtime_error("a handler that throws");
                    }
                    return svTarget == "/large" ? std::optional(StatusDocument{"text/plain", std::string(1 << 20, 'x')})
                                                : std::optional(StatusDocument{"text/plain", "hello"});
                  },
                  [this] {
                    t_bStarved = m_bStarve;
                    if (m_uTicks.fetch_add(1) == 2) {
                      m_ticked.set_value();
                    }
                  },
                  std::chrono::milliseconds(1)});
};

TEST_F(StatusServerTest, AnswersAndEndsTheConnection) {
  Start();
  const std::string strAnswer = Get("/");
  EXPECT_EQ(StatusLine(strAnswer), "HTTP/1.1 200 OK");
  EXPECT_EQ(strAnswer.substr(strAnswer.size() - 9), "\r\n\r\nhello");
  const std::string strLarge = Get("/large");
  EXPECT_GT(strLarge.size(), size_t{1} << 20);
}

TEST_F(StatusServerTest, AnswersAClientThatSendsByteByByte) {
  Start();
  const CSocket client = Connect();
  for (const char cByte : std::string("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")) {
    client.Send(std::string(1, cByte));
  }
  EXPECT_EQ(StatusLine(client.ReadAll()), "HTTP/1.1 200 OK");
}

TEST_F(StatusServerTest, TicksAtItsPace) {
  Start();
  EXPECT_EQ(m_ticked.get_future().wait_for(std::chrono::milliseconds(kHangGuardMs)), std::future_status::ready);
}

TEST_F(StatusServerTest, AnswersGarbageWithARefusal) {
  Start();
  EXPECT_EQ(StatusLine(Ask("\x16\x03\x01 not a request\r\n\r\n")), "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(StatusLine(Ask("GET / HTTP/9.9\r\n\r\n")), "HTTP/1.1 400 Bad Request");
  EXPECT_EQ(StatusLine(Get("/" + std::string(10000, 'a'))), "HTTP/1.1 431 Request Header Fields Too Large");
  EXPECT_EQ(StatusLine(Ask("GET / HTTP/1.1\r\nHost: localhost\r\nX: " + std::string(20000, 'a'))),
            "HTTP/1.1 431 Request Header Fields Too Large");
  EXPECT_EQ(StatusLine(Ask("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1000000\r\n\r\nbody")),
            "HTTP/1.1 405 Method Not Allowed");
  EXPECT_EQ(StatusLine(Get("/")), "HTTP/1.1 200 OK");
}

TEST_F(StatusServerTest, ClientsThatHoldConnectionsKeepNobodyOut) {
  Start();
  std::vector<CSocket> vecHolders;
  for (size_t i = 0; i < 4 * kMostConnections; ++i) {
    vecHolders.push_back(Connect());
    vecHolders.back().Send("GET / HT");
  }
  EXPECT_EQ(StatusLine(Get("/")), "HTTP/1.1 200 OK");
  EXPECT_EQ(vecHolders.front().ReadAll(), "");  // the first to come was the first to go
}

TEST_F(StatusServerTest, AnUnfinishedRequestIsNotWaitedForForever) {
  Start();
  const CSocket client = Connect();
  client.Send("GET / HTTP/1.1\r\n");
  EXPECT_EQ(client.ReadAll(), "");
}

TEST_F(StatusServerTest, AHandlerThatThrowsCostsItsConnectionOnly) {
  Start();
  EXPECT_EQ(Get("/throw"), "");
  EXPECT_EQ(StatusLine(Get("/")), "HTTP/1.1 200 OK");
}

TEST_F(StatusServerTest, GoesOnWhenThereIsMemoryAgain) {
  Start();
  EXPECT_EQ(StatusLine(Get("/")), "HTTP/1.1 200 OK");
  for (unsigned int uFamine = 0; uFamine < 5; ++uFamine) {
    m_bStarve = true;
    AwaitTicks(2);
    std::vector<CSocket> vecClients;
    for (unsigned int i = 0; i < 3; ++i) {
      vecClients.push_back(Connect());
      vecClients.back().Send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n");
    }
    AwaitTicks(2);
    m_bStarve = false;
    AwaitTicks(2);
    for (const CSocket& client : vecClients) {
      EXPECT_NE(client.ReadAll(), "hangs");
    }
    EXPECT_EQ(StatusLine(Get("/")), "HTTP/1.1 200 OK");
  }
}

TEST_F(StatusServerTest, AStopWaitsForNoClient) {
  const auto fnDocument = [](std::string_view) { return StatusDocument{"text/plain", std::string(1 << 20, 'x')}; };
  m_pServer = CreateStatusServer(m_options, {fnDocument, [] {}, std::chrono::hours(1), std::chrono::hours(1)});
  Start();
  const CSocket silent = Connect();
  const CSocket unread = Connect();
  unread.Send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_EQ(StatusLine(Get("/")), "HTTP/1.1 200 OK");
  std::future<void> stopped = std::async(std::launch::async, [this] { m_pServer.reset(); });
  EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(kHangGuardMs)), std::future_status::ready);
  EXPECT_EQ(silent.ReadAll(), "");
}

TEST_F(StatusServerTest, ServesWhenAnAddressThatWasTakenIsFree) {
  {
    const CSocket other;
    ShareAddress(other);
    const sockaddr_in address = Loopback(m_options.uPort);
    ASSERT_EQ(bind(other.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(other.Get(), 1), 0);
    Start();
    // It looks at the host all the same.
    ASSERT_EQ(m_ticked.get_future().wait_for(std::chrono::milliseconds(kHangGuardMs)), std::future_status::ready);
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kHangGuardMs);
  const sockaddr_in address = Loopback(m_options.uPort);
  for (;;) {
    const CSocket client;
    if (connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      break;
    }
    ASSERT_LT(std::chrono::steady_clock::now(), end);
    std::this_thread::yield();
  }
  EXPECT_EQ(StatusLine(Get("/")), "HTTP/1.1 200 OK");
}

}  // namespace
