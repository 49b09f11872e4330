// The watch over connection attempts.
#include "host/link/nats/socket_watch.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>

namespace {

// A server on loopback that says nothing.
class CSilence {
 public:
  explicit CSilence(const char* pszAddress = "127.0.0.1", uint16_t uPort = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, pszAddress, &address.sin_addr), 1);
    address.sin_port = htons(uPort);
    socklen_t uLength = sizeof(address);
    EXPECT_EQ(bind(m_iListen, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(m_iListen, 4), 0);
    EXPECT_EQ(getsockname(m_iListen, reinterpret_cast<sockaddr*>(&m_address), &uLength), 0);
  }
  ~CSilence() { close(m_iListen); }
  CSilence(const CSilence&) = delete;
  CSilence& operator=(const CSilence&) = delete;

  uint16_t Port() const { return ntohs(m_address.sin_port); }
  int Connect() const {
    const int iFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(iFd, reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)), 0);
    return iFd;
  }

 private:
  const int m_iListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in m_address{};
};

// Whether nothing has come and nobody has hung up.
bool IsOpen(int iFd) {
  char c = 0;
  return recv(iFd, &c, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

TEST(SocketWatchTest, EndsWhatHangsBeyondTheLimitAndNothingElse) {
  const CSilence server;
  const CSilence otherPort;
  const CSilence otherAddress("127.0.0.2", server.Port());
  const int iBefore = server.Connect();
  int iOtherPort = -1;
  int iOtherAddress = -1;
  {
    const CSocketWatch watch("127.0.0.1", server.Port(), std::chrono::milliseconds(50), [] { return false; });
    iOtherPort = otherPort.Connect();
    iOtherAddress = otherAddress.Connect();
    // A socket that is found late shows that the others have been looked at.
    for (int i = 0; i < 3; ++i) {
      const int iNew = server.Connect();
      char c = 0;
      EXPECT_EQ(recv(iNew, &c, 1, 0), 0);
      close(iNew);
    }
    EXPECT_TRUE(watch.IsOver());
  }
  for (const int iFd : {iBefore, iOtherPort, iOtherAddress}) {
    EXPECT_TRUE(IsOpen(iFd));
    close(iFd);
  }
}

TEST(SocketWatchTest, KnowsANameAndBrackets) {
  for (const char* pszHost : {"localhost", "[127.0.0.1]"}) {
    const CSilence server;
    const CSocketWatch watch(pszHost, server.Port(), std::chrono::milliseconds(50), [] { return false; });
    const int iFd = server.Connect();
    char c = 0;
    EXPECT_EQ(recv(iFd, &c, 1, 0), 0) << pszHost;
    close(iFd);
  }
}

TEST(SocketWatchTest, EndsAnAttemptThatIsWantedNoMore) {
  const CSilence server;
  std::atomic<bool> bCancelled = false;
  const CSocketWatch watch("127.0.0.1", server.Port(), std::chrono::hours(1), [&] { return bCancelled.load(); });
  const int iFd = server.Connect();
  EXPECT_TRUE(IsOpen(iFd));
  bCancelled = true;
  char c = 0;
  EXPECT_EQ(recv(iFd, &c, 1, 0), 0);
  EXPECT_FALSE(watch.IsOver());
  close(iFd);
}

}  // namespace
