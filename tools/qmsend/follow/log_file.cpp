#include "tools/qmsend/follow/log_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace {

constexpr size_t kHeadSize = 256;

}  // namespace

std::shared_ptr<CLogFile> CLogFile::Open(const std::string& strPath, std::string& strError) {
  // Non-blocking, lest a named pipe hold the opening.
  const int iFile = ::open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  struct stat info {};
  if (iFile < 0 || ::fstat(iFile, &info) != 0) {
    strError = "cannot read " + strPath + ": " + std::generic_category().message(errno);
    return nullptr;
  }
  if (!S_ISREG(info.st_mode)) {
    ::close(iFile);
    strError = "cannot follow " + strPath + ": it is not a regular file";
    errno = EINVAL;
    return nullptr;
  }
  return std::shared_ptr<CLogFile>(new CLogFile(iFile, strPath, info));
}

CLogFile::CLogFile(int iFile, std::string strPath, const struct stat& info)
    : m_iFile(iFile), m_strPath(std::move(strPath)), m_u64Device(info.st_dev), m_u64Inode(info.st_ino) {
  m_strHead = ReadAt(0, kHeadSize);
}

CLogFile::~CLogFile() {
  ::close(m_iFile);
}

timespec CLogFile::Modified() const {
  struct stat info {};
  static_cast<void>(::fstat(m_iFile, &info));
  return info.st_mtim;
}

bool CLogFile::IsIntact(uint64_t u64Read, uint64_t u64Line, const std::string& strBefore) {
  struct stat info {};
  if (::fstat(m_iFile, &info) != 0 || static_cast<uint64_t>(info.st_size) < u64Read ||
      ReadAt(u64Line - strBefore.size(), strBefore.size()) != strBefore) {
    return false;
  }
  std::string strHead = ReadAt(0, kHeadSize);
  if (strHead.compare(0, m_strHead.size(), m_strHead) != 0) {
    return false;
  }
  m_strHead = std::move(strHead);
  return true;
}

bool CLogFile::Holds(const FollowPosition& position) const {
  struct stat info {};
  return ::fstat(m_iFile, &info) == 0 && static_cast<uint64_t>(info.st_size) >= position.u64Offset &&
         ReadAt(0, position.strHead.size()) == position.strHead &&
         ReadAt(position.u64Offset - position.strBefore.size(), position.strBefore.size()) == position.strBefore;
}

std::string CLogFile::ReadAt(uint64_t u64Offset, size_t uLength) const {
  std::string strBytes(uLength, '\0');
  const ssize_t iRead = TEMP_FAILURE_RETRY(::pread(m_iFile, strBytes.data(), uLength, static_cast<off_t>(u64Offset)));
  strBytes.resize(static_cast<size_t>(std::max<ssize_t>(iRead, 0)));
  return strBytes;
}
