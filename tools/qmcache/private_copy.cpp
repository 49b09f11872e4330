#include "tools/qmcache/private_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "tools/qmcache/interruption.h"
#include "tools/qmcache/progress.h"
#include "tools/qmcache/snapshot.h"

namespace {

constexpr size_t kBlockSize = 262144;
constexpr size_t kSmallBlock = 512;  // what of a block may still be readable is found in steps of this
constexpr std::array<const char*, 3> kParts = {"", "-wal", "-journal"};
constexpr char kKeptLog[] = "-log";

[[noreturn]] void ThrowErrno(const std::string& strWhat) {
  throw std::system_error(errno, std::generic_category(), strWhat);
}

std::string ErrorText(const std::string& strWhat) {
  return strWhat + ": " + std::generic_category().message(errno);
}

class CDescriptor {
 public:
  explicit CDescriptor(int iFile) : m_iFile(iFile) {}
  ~CDescriptor() {
    if (m_iFile >= 0) {
      close(m_iFile);
    }
  }
  CDescriptor(const CDescriptor&) = delete;
  CDescriptor& operator=(const CDescriptor&) = delete;
  int Get() const { return m_iFile; }

 private:
  const int m_iFile;
};

int MakeFile(const std::string& strPath) {
  const int iFile = open(strPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (iFile < 0) {
    ThrowErrno("cannot write the temporary file " + strPath);
  }
  return iFile;
}

void WriteAll(int iFile, const char* pData, size_t uSize) {
  while (uSize > 0) {
    const ssize_t iWritten = TEMP_FAILURE_RETRY(write(iFile, pData, uSize));
    if (iWritten < 0) {
      ThrowErrno("cannot write a temporary file");
    }
    pData += iWritten;
    uSize -= static_cast<size_t>(iWritten);
  }
}

// Some of the file system stays free for everybody else: what is copied may be made to be endless.
void CheckRoom(int iFile, const std::string& strFrom) {
  constexpr uint64_t kShare = 20;
  constexpr uint64_t kMostReserved = uint64_t{1} << 30;
  struct statvfs room {};
  if (fstatvfs(iFile, &room) != 0) {
    ThrowErrno("cannot tell how much room is left for temporary files");
  }
  const uint64_t u64Reserved = std::min(uint64_t{room.f_blocks} * room.f_frsize / kShare, kMostReserved);
  if (uint64_t{room.f_bavail} * room.f_frsize < u64Reserved) {
    throw std::runtime_error("not enough room for a copy of " + strFrom + "; TMPDIR says where it is made");
  }
}

// pread that reads on until uSize bytes are there; fewer at the end of the file, -1 with errno.
ssize_t ReadBlock(int iFile, char* pData, size_t uSize, off_t iAt) {
  size_t uRead = 0;
  while (uRead < uSize) {
    const ssize_t iRead =
        TEMP_FAILURE_RETRY(pread(iFile, pData + uRead, uSize - uRead, iAt + static_cast<off_t>(uRead)));
    if (iRead < 0) {
      return -1;
    }
    if (iRead == 0) {
      break;
    }
    uRead += static_cast<size_t>(iRead);
  }
  return static_cast<ssize_t>(uRead);
}

// What tells a file from what it becomes by being written to.
struct Look {
  dev_t device = 0;
  ino_t inode = 0;
  off_t iSize = 0;
  timespec time{};
  bool operator==(const Look& other) const {
    return device == other.device && inode == other.inode && iSize == other.iSize && time.tv_sec == other.time.tv_sec &&
           time.tv_nsec == other.time.tv_nsec;
  }
};

std::optional<Look> LookAt(const std::string& strPath) {
  struct stat info {};
  if (lstat(strPath.c_str(), &info) != 0) {
    return std::nullopt;
  }
  return Look{info.st_dev, info.st_ino, info.st_size, info.st_mtim};
}

using Looks = std::array<std::optional<Look>, kParts.size()>;

Looks LookAtAll(const std::string& strFile) {
  Looks looks;
  for (size_t i = 0; i < kParts.size(); ++i) {
    looks[i] = LookAt(strFile + kParts[i]);
  }
  return looks;
}

// Whether the last change is so long ago that one more would show: the kernel stamps files with a clock that moves in
// steps of some milliseconds.
bool HasSettled(const Looks& looks) {
  constexpr int64_t kSettledNs = 20'000'000;
  constexpr int64_t kSecondNs = 1'000'000'000;
  constexpr int64_t kClockSeconds = 10;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return std::all_of(looks.begin(), looks.end(), [&](const std::optional<Look>& look) {
    if (!look) {
      return true;
    }
    const int64_t i64Seconds = now.tv_sec - look->time.tv_sec;
    const int64_t i64Ns = i64Seconds * kSecondNs + now.tv_nsec - look->time.tv_nsec;
    // A time far in the future comes from a clock that was set.
    return i64Seconds < -kClockSeconds || i64Seconds > 1 || i64Ns > kSettledNs;
  });
}

// Copies one file. pu64Lost null: a block that cannot be read is a failure.
bool CopyFile(const std::string& strFrom, const std::string& strTo, uint64_t* pu64Lost, std::string& strError) {
  const CDescriptor from(OpenRegularFile(strFrom));
  struct stat info {};
  if (from.Get() < 0 || fstat(from.Get(), &info) != 0) {
    strError = ErrorText("cannot read " + strFrom);
    return false;
  }
  const CDescriptor to(MakeFile(strTo));
  std::vector<char> vecBlock(kBlockSize);
  for (off_t iAt = 0; iAt < info.st_size;) {
    EndIfInterrupted();
    const auto uWanted = static_cast<size_t>(std::min<off_t>(kBlockSize, info.st_size - iAt));
    ssize_t iRead = ReadBlock(from.Get(), vecBlock.data(), uWanted, iAt);
    if (iRead < 0 && pu64Lost == nullptr) {
      strError = ErrorText("cannot read " + strFrom);
      return false;
    }
    if (iRead < 0) {
      iRead = static_cast<ssize_t>(uWanted);
      std::fill(vecBlock.begin(), vecBlock.end(), '\0');
      for (size_t uPart = 0; uPart < uWanted; uPart += kSmallBlock) {
        const size_t uSize = std::min(kSmallBlock, uWanted - uPart);
        if (ReadBlock(from.Get(), vecBlock.data() + uPart, uSize, iAt + static_cast<off_t>(uPart)) < 0) {
          *pu64Lost += uSize;
        }
      }
    }
    if (iRead == 0) {
      break;  // it has become shorter
    }
    CheckRoom(to.Get(), strFrom);
    WriteAll(to.Get(), vecBlock.data(), static_cast<size_t>(iRead));
    iAt += iRead;
    CProgress::Step(static_cast<uint64_t>(iRead));
  }
  return true;
}

struct GzClose {
  void operator()(gzFile_s* pFile) const { gzclose(pFile); }
};

}  // namespace

int OpenRegularFile(const std::string& strPath) {
  const int iFile = open(strPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  struct stat info {};
  if (iFile >= 0 && (fstat(iFile, &info) != 0 || !S_ISREG(info.st_mode))) {
    close(iFile);
    errno = EINVAL;
    return -1;
  }
  return iFile;
}

CPrivateCopy::CPrivateCopy() {
  const char* pszBase = secure_getenv("TMPDIR");
  m_strDirectory = std::string(pszBase != nullptr && *pszBase == '/' ? pszBase : "/var/tmp") + "/qmcache-XXXXXX";
  if (mkdtemp(m_strDirectory.data()) == nullptr) {
    ThrowErrno("cannot make a temporary directory " + m_strDirectory);
  }
  m_strPath = m_strDirectory + "/copy.db";
}

CPrivateCopy::~CPrivateCopy() {
  RemoveFiles();
  rmdir(m_strDirectory.c_str());
}

void CPrivateCopy::RemoveFiles() const {
  for (const char* pszSuffix : {"", "-wal", "-shm", "-journal", kKeptLog}) {
    unlink((m_strPath + pszSuffix).c_str());
  }
}

bool CPrivateCopy::TakeWhole(const std::string& strFile, std::string& strError) {
  constexpr int kTries = 20;
  constexpr useconds_t kPauseUs = 50000;
  for (int iTry = 0; iTry < kTries; ++iTry) {
    RemoveFiles();
    const Looks before = LookAtAll(strFile);
    bool bCopied = true;
    for (size_t i = 0; i < kParts.size() && bCopied; ++i) {
      bCopied = !before[i] || CopyFile(strFile + kParts[i], m_strPath + kParts[i], nullptr, strError);
    }
    if (before == LookAtAll(strFile)) {
      if (bCopied && !before[0]) {
        errno = ENOENT;
        strError = ErrorText("cannot read " + strFile);
        return false;
      }
      return bCopied;
    }
    usleep(kPauseUs);
  }
  strError = strFile + " is being written to without a pause; try again";
  return false;
}

bool CPrivateCopy::TakeWhatIsReadable(const std::string& strFile, uint64_t& u64LostBytes, bool& bChanged,
                                      std::string& strError) {
  constexpr int kTries = 5;
  constexpr useconds_t kPauseUs = 50000;
  bChanged = false;
  for (int iTry = 0; iTry < kTries; ++iTry) {
    const Looks before = LookAtAll(strFile);
    const bool bSettled = HasSettled(before);
    const bool bCopied = CopyWhatIsReadable(strFile, u64LostBytes, strError);
    if (bSettled && before == LookAtAll(strFile)) {
      return bCopied;
    }
    usleep(kPauseUs);
  }
  u64LostBytes = 0;
  for (int iTry = 0; iTry < kTries; ++iTry) {
    RemoveFiles();
    if (TakeSnapshot(strFile, m_strPath)) {
      return true;
    }
    usleep(kPauseUs);  // its writer may just be opening it
  }
  bChanged = true;
  return CopyWhatIsReadable(strFile, u64LostBytes, strError);
}

bool CPrivateCopy::CopyWhatIsReadable(const std::string& strFile, uint64_t& u64LostBytes, std::string& strError) const {
  RemoveFiles();
  u64LostBytes = 0;
  return std::all_of(kParts.begin(), kParts.end(), [&](const char* pszPart) {
    return (*pszPart != '\0' && !LookAt(strFile + pszPart)) ||
           CopyFile(strFile + pszPart, m_strPath + pszPart, &u64LostBytes, strError);
  });
}

std::string CPrivateCopy::KeepLog(std::string& strError) const {
  const std::string strKept = m_strPath + kKeptLog;
  return CopyFile(m_strPath + "-wal", strKept, nullptr, strError) ? strKept : std::string();
}

bool CPrivateCopy::Unpack(const std::string& strFile, bool& bCutShort, std::string& strError) {
  const int iFile = OpenRegularFile(strFile);
  const std::unique_ptr<gzFile_s, GzClose> pFile(iFile < 0 ? nullptr : gzdopen(iFile, "rb"));
  if (pFile == nullptr) {
    strError = ErrorText("cannot read " + strFile);
    return false;
  }
  const CDescriptor to(MakeFile(m_strPath));
  // In small pieces: zlib gives nothing of a piece in which it meets damage.
  std::vector<char> vecBlock(kSmallBlock);
  uint64_t u64Size = 0;
  int iRead = 0;
  while ((iRead = gzread(pFile.get(), vecBlock.data(), static_cast<unsigned int>(vecBlock.size()))) > 0) {
    EndIfInterrupted();
    CProgress::Step(0);  // how much is to come out is not known
    if (u64Size % kBlockSize == 0) {
      CheckRoom(to.Get(), strFile);
    }
    WriteAll(to.Get(), vecBlock.data(), static_cast<size_t>(iRead));
    u64Size += static_cast<uint64_t>(iRead);
  }
  int iError = Z_OK;
  const std::string strReason = gzerror(pFile.get(), &iError);
  bCutShort = iError != Z_OK;
  if (u64Size == 0) {
    strError = strFile + (bCutShort ? ": nothing can be unpacked: " + strReason : ": holds nothing");
    return false;
  }
  return true;
}
