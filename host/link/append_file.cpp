#include "host/link/append_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr mode_t kFileMode = 0600;
// O_NONBLOCK keeps the open of a FIFO or a device from waiting; it means nothing to a regular file.
constexpr int kSafeFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

class CScopedFd {
 public:
  explicit CScopedFd(int iFd) : m_iFd(iFd) {}
  ~CScopedFd() {
    if (m_iFd >= 0) {
      close(m_iFd);
    }
  }
  CScopedFd(const CScopedFd&) = delete;
  CScopedFd& operator=(const CScopedFd&) = delete;
  int Get() const { return m_iFd; }

 private:
  int m_iFd;
};

// Open errors that say what kind of thing is there instead of a file.
bool IsNoFileError(int iError) {
  return iError == ELOOP || iError == EISDIR || iError == ENXIO;
}

int SyncDirectoryOf(const std::string& strPath) {
  const size_t uSlash = strPath.rfind('/');
  const std::string strDirectory = uSlash == std::string::npos ? "." : strPath.substr(0, uSlash + 1);
  const CScopedFd fd(open(strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.Get() < 0) {
    // A directory that may be searched but not listed cannot be synced by us; the file itself still is.
    return errno == EACCES ? 0 : errno;
  }
  // Some file systems know no sync of a directory and say EINVAL.
  return fsync(fd.Get()) == 0 || errno == EINVAL ? 0 : errno;
}

}  // namespace

std::string DescribeError(const char* pszAction, const std::string& strPath, int iError) noexcept {
  try {
    const char* pszError = strerrordesc_np(iError);
    return std::string(pszAction) + ' ' + strPath + ": " + (pszError != nullptr ? pszError : "unknown error");
  } catch (...) {
    return {};
  }
}

OpenOutcome CAppendFile::Open(const std::string& strPath, bool bSyncDirectory, std::string& strReason) noexcept {
  Close();
  m_bCompletedTornLine = false;
  try {
    return TryOpen(strPath, bSyncDirectory, strReason);
  } catch (...) {
    Close();
    return OpenOutcome::Unavailable;
  }
}

OpenOutcome CAppendFile::TryOpen(const std::string& strPath, bool bSyncDirectory, std::string& strReason) {
  // Looked at before the open as well: opening a device may already do something to it.
  struct stat status {};
  if (lstat(strPath.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    strReason = strPath + ": not a regular file";
    return OpenOutcome::Refused;
  }
  m_iFd = open(strPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | kSafeFlags, kFileMode);
  if (m_iFd < 0) {
    const int iError = errno;
    strReason = DescribeError("open", strPath, iError);
    return IsNoFileError(iError) ? OpenOutcome::Refused : OpenOutcome::Unavailable;
  }
  int iError = fstat(m_iFd, &status) == 0 ? 0 : errno;
  if (iError == 0 && !S_ISREG(status.st_mode)) {
    Close();
    strReason = strPath + ": not a regular file";
    return OpenOutcome::Refused;
  }
  // Records are nobody else's to read. A file that belongs to another user keeps the mode that its owner gave it.
  if (iError == 0 && (status.st_mode & ALLPERMS & ~kFileMode) != 0 && fchmod(m_iFd, kFileMode) != 0 && errno != EPERM) {
    iError = errno;
  }
  if (iError == 0 && status.st_size > 0) {
    iError = CompleteTornLine(strPath);
  }
  if (iError == 0 && bSyncDirectory) {
    iError = SyncDirectoryOf(strPath);
  }
  if (iError != 0) {
    Close();
    strReason = DescribeError("prepare", strPath, iError);
    return OpenOutcome::Unavailable;
  }
  return OpenOutcome::Open;
}

void CAppendFile::Close() {
  if (m_iFd >= 0) {
    close(m_iFd);
    m_iFd = -1;
  }
}

// The end is read through a descriptor of its own, since the file is open for appending only. A file that cannot be
// read counts as torn: an empty line does less harm than two records in one.
int CAppendFile::CompleteTornLine(const std::string& strPath) {
  struct stat own {};
  struct stat seen {};
  if (fstat(m_iFd, &own) != 0) {
    return errno;
  }
  const CScopedFd fd(open(strPath.c_str(), O_RDONLY | kSafeFlags));
  char cLast = '\0';
  const bool bRead = fd.Get() >= 0 && fstat(fd.Get(), &seen) == 0 && seen.st_dev == own.st_dev &&
                     seen.st_ino == own.st_ino && pread(fd.Get(), &cLast, 1, own.st_size - 1) == 1;
  if (bRead && cLast == '\n') {
    return 0;
  }
  uint64_t u64Written = 0;
  const int iError = Append("\n", u64Written);
  m_bCompletedTornLine = iError == 0;
  return iError;
}

bool CAppendFile::IsRemoved() const {
  struct stat status {};
  return fstat(m_iFd, &status) == 0 && status.st_nlink == 0;
}

int CAppendFile::GetSize(uint64_t& u64Size) const {
  struct stat status {};
  if (fstat(m_iFd, &status) != 0) {
    return errno;
  }
  u64Size = static_cast<uint64_t>(status.st_size);
  return 0;
}

int CAppendFile::Append(std::string_view svBytes, uint64_t& u64Written) {
  while (!svBytes.empty()) {
    const ssize_t iWritten = write(m_iFd, svBytes.data(), svBytes.size());
    if (iWritten < 0 && errno == EINTR) {
      continue;
    }
    if (iWritten <= 0) {
      return iWritten < 0 ? errno : EIO;
    }
    u64Written += static_cast<uint64_t>(iWritten);
    svBytes.remove_prefix(static_cast<size_t>(iWritten));
  }
  return 0;
}

int CAppendFile::Sync() {
  return fdatasync(m_iFd) == 0 ? 0 : errno;
}

int CAppendFile::CutBack(uint64_t u64Expected, uint64_t u64Size) {
  uint64_t u64Now = 0;
  const int iError = GetSize(u64Now);
  if (iError != 0) {
    return iError;
  }
  if (u64Now != u64Expected) {
    return EBUSY;
  }
  return ftruncate(m_iFd, static_cast<off_t>(u64Size)) == 0 ? 0 : errno;
}

int CAppendFile::ReserveRoom(uint64_t u64Bytes) {
  uint64_t u64Size = 0;
  int iError = GetSize(u64Size);
  if (iError == 0 && u64Bytes > 0) {
    const int iResult =
        fallocate(m_iFd, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(u64Size), static_cast<off_t>(u64Bytes));
    iError = iResult == 0 || errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL ? 0 : errno;
  }
  return iError;
}
