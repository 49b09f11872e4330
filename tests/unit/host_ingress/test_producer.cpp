#include "tests/unit/host_ingress/test_producer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

CTestProducer::CTestProducer(const std::string& strPath, bool bHello)
    : m_iSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, strPath.c_str(), strPath.size());
  const timeval guard{60, 0};
  ::setsockopt(m_iSocket, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
  ::setsockopt(m_iSocket, SOL_SOCKET, SO_SNDTIMEO, &guard, sizeof(guard));
  if (::connect(m_iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    Close();
    return;
  }
  if (bHello) {
    std::string strHello;
    AppendHello(strHello);
    EXPECT_TRUE(SendBytes(strHello));
    const std::optional<std::string> strFrame = ReadFrame();
    EXPECT_TRUE(strFrame && ReadWelcome(*strFrame, m_welcome));
  }
}

CTestProducer::~CTestProducer() {
  Close();
}

void CTestProducer::Close() {
  if (m_iSocket >= 0) {
    ::close(m_iSocket);
    m_iSocket = -1;
  }
}

bool CTestProducer::SendBytes(std::string_view svBytes) {
  while (!svBytes.empty()) {
    const ssize_t iSent = ::send(m_iSocket, svBytes.data(), svBytes.size(), MSG_NOSIGNAL);
    if (iSent <= 0) {
      return false;
    }
    svBytes.remove_prefix(static_cast<size_t>(iSent));
  }
  return true;
}

bool CTestProducer::SendMessage(uint64_t u64RequestId, std::string_view svPayload, uint32_t uMsgType) {
  std::string strFrame;
  AppendMessage(strFrame, {uMsgType, u64RequestId, GUID{}, svPayload});
  return SendBytes(strFrame);
}

void CTestProducer::EndOutput() {
  ::shutdown(m_iSocket, SHUT_WR);
}

bool CTestProducer::HasInputWithin(int iMilliseconds) const {
  pollfd descriptor{m_iSocket, POLLIN, 0};
  return ::poll(&descriptor, 1, iMilliseconds) > 0;
}

std::optional<std::string> CTestProducer::ReadFrame() {
  char aPrefix[kIngressPrefixSize];
  if (!ReadExactly(aPrefix, sizeof(aPrefix))) {
    return std::nullopt;
  }
  std::string strFrame(ReadFrameLength(aPrefix), '\0');
  if (!ReadExactly(strFrame.data(), strFrame.size())) {
    return std::nullopt;
  }
  return strFrame;
}

std::map<uint64_t, uint32_t> CTestProducer::ReadAnswers(size_t uCount) {
  std::map<uint64_t, uint32_t> mapAnswers;
  for (size_t i = 0; i < uCount; ++i) {
    const std::optional<std::string> strFrame = ReadFrame();
    IngressAnswer answer;
    if (!strFrame || !ReadAnswer(*strFrame, answer)) {
      ADD_FAILURE() << "answer " << i << " of " << uCount << " did not come";
      break;
    }
    EXPECT_TRUE(mapAnswers.emplace(answer.u64RequestId, answer.uStatus).second)
        << "answered twice: " << answer.u64RequestId;
  }
  return mapAnswers;
}

std::optional<IngressFailure> CTestProducer::ReadUntilFailure() {
  while (const std::optional<std::string> strFrame = ReadFrame()) {
    IngressFailure failure{};
    std::string_view svText;
    if (ReadFailure(*strFrame, failure, svText)) {
      EXPECT_FALSE(svText.empty());
      EXPECT_TRUE(ReadEnd()) << "a failure must be the last frame";
      return failure;
    }
  }
  return std::nullopt;
}

bool CTestProducer::ReadExactly(char* pBytes, size_t uSize) {
  while (uSize > 0) {
    const ssize_t iRead = ::recv(m_iSocket, pBytes, uSize, 0);
    if (iRead < 0) {
      EXPECT_TRUE(errno == ECONNRESET) << "reading: " << std::strerror(errno);
    }
    if (iRead <= 0) {
      return false;
    }
    pBytes += iRead;
    uSize -= static_cast<size_t>(iRead);
  }
  return true;
}
