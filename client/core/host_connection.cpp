#include "client/core/host_connection.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace {

constexpr size_t kInputSize = 256U << 10;
constexpr unsigned int kReadsATurn = 4;
// No frame of the host is longer; texts are cut there.
constexpr uint32_t kLongestAnswer = 64U << 10;
constexpr char kClosed[] = "the host closed the connection";

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

bool CHostConnection::Begin(const std::string& strPath, std::string& strError) {
  Close();
  m_vecInput.resize(kInputSize);
  if (!Connect(strPath, strError)) {
    Close();
    return false;
  }
  AppendHello(m_strOutput);
  if (!Flush(strError)) {
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
  m_bReady = false;
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
  } else if (m_uSent >= Unsent()) {
    // Not more often, so that a byte is moved once at most for each that was sent.
    m_strOutput.erase(0, m_uSent);
    m_uSent = 0;
  }
  return true;
}

bool CHostConnection::Receive(std::vector<IngressAnswer>& vecAnswers, std::string& strError) {
  const bool bGreeting = !m_bReady;
  if (ReceiveFrames(vecAnswers, strError)) {
    return true;
  }
  if (bGreeting && !m_bReady && strError == kClosed) {
    strError += " at once; perhaps this user may not send, or too many connections are open";
  }
  return false;
}

bool CHostConnection::ReceiveFrames(std::vector<IngressAnswer>& vecAnswers, std::string& strError) {
  for (unsigned int uReads = 0; uReads < kReadsATurn; ++uReads) {
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
      strError = kClosed;
      return false;
    } else if (iRead == 0 || errno != EINTR) {
      strError = iRead == 0 || errno == ECONNRESET ? kClosed : "cannot receive: " + ErrorText(errno);
      return false;
    }
  }
  return true;
}

bool CHostConnection::TakeFrames(std::vector<IngressAnswer>& vecAnswers, std::string& strError) {
  std::string_view svFrame;
  while (NextFrame(svFrame, strError)) {
    IngressAnswer answer;
    IngressFailure failure{};
    std::string_view svText;
    if (ReadFailure(svFrame, failure, svText)) {
      strError = DescribeFailure(svText);
      return false;
    }
    if (!m_bReady) {
      if (!TakeWelcome(svFrame, strError)) {
        return false;
      }
    } else if (ReadAnswer(svFrame, answer)) {
      answer.svText = {};
      vecAnswers.push_back(answer);
    } else {
      strError = "the host sent a frame that makes no sense";
      return false;
    }
  }
  return strError.empty();
}

bool CHostConnection::TakeWelcome(std::string_view svFrame, std::string& strError) {
  IngressWelcome welcome;
  if (!ReadWelcome(svFrame, welcome) || welcome.uVersion != kIngressVersion || welcome.uWindow == 0) {
    strError = "the host's welcome makes no sense";
    return false;
  }
  m_welcome = welcome;
  m_bReady = true;
  return true;
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
