#include "tools/qmsend/host_connection.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

namespace {

constexpr std::chrono::seconds kWelcomeTimeout{10};
constexpr size_t kInputSize = 256U << 10;
// No frame of the host is longer; texts are cut there.
constexpr uint32_t kLongestAnswer = 64U << 10;

std::string ErrorText(int iError) {
  return std::generic_category().message(iError);
}

std::string DescribeFailure(std::string_view svText) {
  return "the host closed the connection: " + std::string(svText.substr(0, 256));
}

}  // namespace

CHostConnection::~CHostConnection() {
  Close();
}

bool CHostConnection::Open(const std::string& strPath, CInterrupt& interrupt, std::string& strError) {
  Close();
  m_vecInput.resize(kInputSize);
  if (!Connect(strPath, strError)) {
    Close();
    return false;
  }
  AppendHello(m_strOutput);
  if (!Flush(strError) || !AwaitWelcome(interrupt, strError)) {
    strError = "no connection with '" + strPath + "': " + strError;
    Close();
    return false;
  }
  return true;
}

void CHostConnection::Close() {
  if (m_iSocket >= 0) {
    ::close(m_iSocket);
  }
  m_iSocket = -1;
  m_strOutput.clear();
  m_uSent = 0;
  m_uBegin = 0;
  m_uEnd = 0;
  m_bWriteBroken = false;
}

bool CHostConnection::Connect(const std::string& strPath, std::string& strError) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (strPath.empty() || strPath.size() >= sizeof(address.sun_path)) {
    strError = "the socket path '" + strPath + "' is empty or longer than " +
               std::to_string(sizeof(address.sun_path) - 1) + " bytes";
    return false;
  }
  std::memcpy(address.sun_path, strPath.c_str(), strPath.size());
  m_iSocket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (m_iSocket < 0 ||
      ::connect(m_iSocket, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(sizeof(address))) != 0) {
    strError = "cannot connect to '" + strPath + "': " + ErrorText(errno);
    return false;
  }
  return true;
}

bool CHostConnection::AwaitWelcome(CInterrupt& interrupt, std::string& strError) {
  const auto end = std::chrono::steady_clock::now() + kWelcomeTimeout;
  for (;;) {
    const ssize_t iRead = ::recv(m_iSocket, m_vecInput.data() + m_uEnd, m_vecInput.size() - m_uEnd, 0);
    if (iRead > 0) {
      m_uEnd += static_cast<size_t>(iRead);
      std::string_view svFrame;
      if (NextFrame(svFrame, strError)) {
        IngressFailure failure{};
        std::string_view svText;
        if (ReadWelcome(svFrame, m_welcome) && m_welcome.uVersion == kIngressVersion && m_welcome.uWindow > 0) {
          return true;
        }
        strError = ReadFailure(svFrame, failure, svText) ? DescribeFailure(svText) : "its welcome makes no sense";
        return false;
      }
      if (!strError.empty()) {
        return false;
      }
      continue;
    }
    if (iRead == 0 || (errno != EAGAIN && errno != EINTR)) {
      strError = iRead == 0 || errno == ECONNRESET ? "the host closed it at once; perhaps this user may not send, or "
                                                     "too many connections are open"
                                                   : ErrorText(errno);
      return false;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || CInterrupt::Count() > 0) {
      strError = left.count() <= 0 ? "the host does not answer" : "interrupted";
      return false;
    }
    pollfd descriptor{m_iSocket, POLLIN, 0};
    interrupt.Wait(&descriptor, 1, static_cast<int>(left.count()));
  }
}

bool CHostConnection::Flush(std::string& strError) {
  while (Unsent() > 0 && !m_bWriteBroken) {
    const ssize_t iSent = ::send(m_iSocket, m_strOutput.data() + m_uSent, Unsent(), MSG_NOSIGNAL);
    if (iSent > 0) {
      m_uSent += static_cast<size_t>(iSent);
    } else if (errno == EPIPE || errno == ECONNRESET) {
      // The host may have said why: that is read before the connection counts as lost.
      m_bWriteBroken = true;
    } else if (errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      strError = "cannot send: " + ErrorText(errno);
      return false;
    }
  }
  if (Unsent() == 0 || m_bWriteBroken) {
    m_strOutput.clear();
    m_uSent = 0;
  }
  return true;
}

bool CHostConnection::Receive(std::vector<IngressAnswer>& vecAnswers, std::string& strError) {
  for (;;) {
    if (m_uBegin > 0) {
      std::memmove(m_vecInput.data(), m_vecInput.data() + m_uBegin, m_uEnd - m_uBegin);
      m_uEnd -= m_uBegin;
      m_uBegin = 0;
    }
    const size_t uSpace = m_vecInput.size() - m_uEnd;
    const ssize_t iRead = ::recv(m_iSocket, m_vecInput.data() + m_uEnd, uSpace, 0);
    if (iRead > 0) {
      m_uEnd += static_cast<size_t>(iRead);
      if (!TakeFrames(vecAnswers, strError)) {
        return false;
      }
      if (static_cast<size_t>(iRead) < uSpace && !m_bWriteBroken) {
        return true;
      }
    } else if (iRead < 0 && errno == EAGAIN) {
      if (!m_bWriteBroken) {
        return true;
      }
      strError = "the host closed the connection";
      return false;
    } else if (iRead == 0 || errno != EINTR) {
      strError =
          iRead == 0 || errno == ECONNRESET ? "the host closed the connection" : "cannot receive: " + ErrorText(errno);
      return false;
    }
  }
}

bool CHostConnection::TakeFrames(std::vector<IngressAnswer>& vecAnswers, std::string& strError) {
  std::string_view svFrame;
  while (NextFrame(svFrame, strError)) {
    IngressAnswer answer;
    IngressFailure failure{};
    std::string_view svText;
    if (ReadAnswer(svFrame, answer)) {
      answer.svText = {};
      vecAnswers.push_back(answer);
    } else if (ReadFailure(svFrame, failure, svText)) {
      strError = DescribeFailure(svText);
      return false;
    } else {
      strError = "the host sent a frame that makes no sense";
      return false;
    }
  }
  return strError.empty();
}

bool CHostConnection::NextFrame(std::string_view& svFrame, std::string& strError) {
  if (m_uEnd - m_uBegin < kIngressPrefixSize) {
    return false;
  }
  const uint32_t uLength = ReadFrameLength(m_vecInput.data() + m_uBegin);
  if (uLength > kLongestAnswer) {
    strError = "the host sent a frame that makes no sense";
    return false;
  }
  if (m_uEnd - m_uBegin - kIngressPrefixSize < uLength) {
    return false;
  }
  svFrame = {m_vecInput.data() + m_uBegin + kIngressPrefixSize, uLength};
  m_uBegin += kIngressPrefixSize + uLength;
  return true;
}
