// The connection to the host, with a host that reads when the test wants it to.
#include "client/core/host_connection.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace {

class HostConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string strPattern = (std::filesystem::temp_directory_path() / "qmconnection.XXXXXX").string();
    ASSERT_NE(::mkdtemp(strPattern.data()), nullptr);
    m_strDirectory = strPattern;
    const std::string strPath = m_strDirectory + "/in.sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, strPath.c_str(), sizeof(address.sun_path) - 1);
    m_iListener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(m_iListener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(m_iListener, 1), 0);
    ASSERT_TRUE(m_connection.Begin(strPath, m_strError)) << m_strError;
    m_iHost = ::accept(m_iListener, nullptr, nullptr);
    ASSERT_GE(m_iHost, 0);
  }

  void TearDown() override {
    ::close(m_iHost);
    ::close(m_iListener);
    std::filesystem::remove_all(m_strDirectory);
  }

  // Up to so many bytes of what has come.
  std::string HostReads(size_t uBytes) const {
    std::string strBytes(uBytes, '\0');
    const ssize_t iRead = ::recv(m_iHost, strBytes.data(), uBytes, MSG_DONTWAIT);
    strBytes.resize(static_cast<size_t>(std::max<ssize_t>(iRead, 0)));
    return strBytes;
  }

  std::string m_strDirectory;
  std::string m_strError;
  int m_iListener = -1;
  int m_iHost = -1;
  CHostConnection m_connection;
};

TEST_F(HostConnectionTest, TheOutputStaysSmallThoughTheHostNeverCatchesUp) {
  constexpr size_t kUnsent = 1U << 20;
  constexpr size_t kFrame = 1000;
  std::string strRead = HostReads(kUnsent);
  const size_t uHello = strRead.size();
  size_t uLargest = 0;
  char cFrame = 'a';
  std::string strSent = strRead;
  while (strSent.size() < uHello + 16 * kUnsent) {
    while (m_connection.Unsent() < kUnsent) {
      m_connection.Output().append(kFrame, cFrame);
      strSent.append(kFrame, cFrame);
      cFrame = cFrame == 'z' ? 'a' : static_cast<char>(cFrame + 1);
    }
    strRead += HostReads(100000);
    ASSERT_TRUE(m_connection.Flush(m_strError)) << m_strError;
    uLargest = std::max(uLargest, m_connection.Output().size());
  }
  EXPECT_LE(uLargest, 2 * (kUnsent + kFrame));
  while (m_connection.Unsent() > 0) {
    strRead += HostReads(100000);
    ASSERT_TRUE(m_connection.Flush(m_strError)) << m_strError;
  }
  for (std::string strMore = HostReads(kUnsent); !strMore.empty(); strMore = HostReads(kUnsent)) {
    strRead += strMore;
  }
  EXPECT_TRUE(strRead == strSent);
}

}  // namespace
