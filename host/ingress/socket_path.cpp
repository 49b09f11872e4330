#include "host/ingress/socket_path.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace {

std::string ErrorText(int iError) {
  return std::generic_category().message(iError);
}

// 0 when somebody listens, else the error of the attempt.
int TryConnect(const std::string& strPath) {
  // Non-blocking: a listener whose queue is full answers EAGAIN and is alive.
  const int iSocket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (iSocket < 0) {
    return errno;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, strPath.c_str(), strPath.size());
  const int iResult =
      ::connect(iSocket, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(sizeof(address)));
  const int iError = iResult == 0 ? 0 : errno;
  ::close(iSocket);
  return iError == EAGAIN ? 0 : iError;
}

}  // namespace

bool CSocketPath::Prepare(const std::string& strPath, std::string& strError) {
  m_strPath = strPath;
  if (strPath.empty() || strPath.find('\0') != std::string::npos) {
    strError = "the socket path is empty or holds a zero byte";
    return false;
  }
  constexpr size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  if (strPath.size() > kLongest) {
    strError = "the socket path '" + strPath + "' has " + std::to_string(strPath.size()) + " bytes, at most " +
               std::to_string(kLongest) + " fit into a socket address";
    return false;
  }
  struct stat info {};
  if (::lstat(strPath.c_str(), &info) != 0) {
    if (errno == ENOENT) {
      return true;
    }
    strError = "cannot look at '" + strPath + "': " + ErrorText(errno);
    return false;
  }
  if (!S_ISSOCK(info.st_mode)) {
    strError = "'" + strPath + "' exists and is not a socket; it was left alone";
    return false;
  }
  const int iError = TryConnect(strPath);
  if (iError == 0) {
    strError = "another process serves the socket '" + strPath + "'";
    return false;
  }
  if (iError != ECONNREFUSED) {
    strError = "cannot tell whether the socket '" + strPath + "' is in use: " + ErrorText(iError);
    return false;
  }
  if (::unlink(strPath.c_str()) != 0 && errno != ENOENT) {
    strError = "cannot remove the stale socket '" + strPath + "': " + ErrorText(errno);
    return false;
  }
  return true;
}

bool CSocketPath::Adopt(std::string& strError) {
  struct stat info {};
  // The umask had its say at the bind, and changing the umask would hit other threads.
  if (::fchmodat(AT_FDCWD, m_strPath.c_str(), 0666, AT_SYMLINK_NOFOLLOW) != 0 ||
      ::lstat(m_strPath.c_str(), &info) != 0) {
    strError = "cannot open the socket '" + m_strPath + "' to producers: " + ErrorText(errno);
    return false;
  }
  m_device = info.st_dev;
  m_inode = info.st_ino;
  m_bAdopted = true;
  return true;
}

void CSocketPath::Remove() {
  struct stat info {};
  if (m_bAdopted && ::lstat(m_strPath.c_str(), &info) == 0 && info.st_dev == m_device && info.st_ino == m_inode) {
    ::unlink(m_strPath.c_str());
  }
  m_bAdopted = false;
}
