#include "host/link/token_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "host/link/append_file.h"

namespace {

constexpr size_t kLongestToken = 8192;
constexpr mode_t kTooOpen = S_IWGRP | S_IRWXO;

bool IsSame(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino && left.st_size == right.st_size &&
         left.st_mode == right.st_mode && left.st_mtim.tv_sec == right.st_mtim.tv_sec &&
         left.st_mtim.tv_nsec == right.st_mtim.tv_nsec && left.st_ctim.tv_sec == right.st_ctim.tv_sec &&
         left.st_ctim.tv_nsec == right.st_ctim.tv_nsec;
}

class CFile {
 public:
  // O_NONBLOCK keeps a FIFO from making the caller wait.
  explicit CFile(const std::string& strPath)
      : m_iFd(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
  ~CFile() {
    if (m_iFd >= 0) {
      close(m_iFd);
    }
  }
  CFile(const CFile&) = delete;
  CFile& operator=(const CFile&) = delete;
  int Get() const { return m_iFd; }

 private:
  const int m_iFd;
};

}  // namespace

const std::string* CTokenFile::Current(std::string& strReason) {
  if (m_strPath.empty()) {
    return &m_strToken;
  }
  struct stat status {};
  if (m_bRead && stat(m_strPath.c_str(), &status) == 0 && IsSame(status, m_readStatus)) {
    return &m_strToken;
  }
  m_bRead = false;
  const CFile file(m_strPath);
  if (file.Get() < 0 || fstat(file.Get(), &m_readStatus) != 0) {
    strReason = DescribeError("open the token file", m_strPath, errno);
    return nullptr;
  }
  if (!S_ISREG(m_readStatus.st_mode)) {
    strReason = "the token file " + m_strPath + " is not a regular file";
    return nullptr;
  }
  if ((m_readStatus.st_mode & kTooOpen) != 0) {
    strReason = "the token file " + m_strPath + " is open to other users: its mode must be 0640 or stricter";
    return nullptr;
  }
  m_bRead = Read(file.Get(), strReason);
  return m_bRead ? &m_strToken : nullptr;
}

bool CTokenFile::Read(int iFile, std::string& strReason) {
  std::array<char, kLongestToken + 2> acBytes;
  size_t uRead = 0;
  while (uRead < acBytes.size()) {
    const ssize_t iRead = read(iFile, acBytes.data() + uRead, acBytes.size() - uRead);
    if (iRead < 0 && errno == EINTR) {
      continue;
    }
    if (iRead < 0) {
      strReason = DescribeError("read the token file", m_strPath, errno);
      return false;
    }
    if (iRead == 0) {
      break;
    }
    uRead += static_cast<size_t>(iRead);
  }
  std::string strToken(acBytes.data(), uRead);
  acBytes.fill('\0');
  strToken.erase(strToken.find_last_not_of(" \t\r\n") + 1);
  const bool bVisible = std::all_of(strToken.begin(), strToken.end(), [](char c) { return c > ' ' && c < 0x7f; });
  if (strToken.empty() || strToken.size() > kLongestToken || !bVisible) {
    strReason = "the token file " + m_strPath + " does not hold one token: a line of visible characters, at most 8 KiB";
    return false;
  }
  m_strToken = std::move(strToken);
  return true;
}
