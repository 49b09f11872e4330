#include "tools/qmsend/follow/position_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

constexpr char kTitle[] = "qmsend-position 1";
// Far more than a position needs, far less than memory.
constexpr size_t kLongestFile = 64U << 10;

std::string Because(const std::string& strWhat, int iError) {
  return strWhat + ": " + std::generic_category().message(iError);
}

std::string ToHex(std::string_view svBytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string strHex;
  for (const char c : svBytes) {
    const auto uByte = static_cast<unsigned char>(c);
    strHex += kDigits[uByte >> 4U];
    strHex += kDigits[uByte & 15U];
  }
  return strHex;
}

bool FromHex(std::string_view svHex, std::string& strBytes) {
  strBytes.clear();
  if (svHex.size() % 2 != 0) {
    return false;
  }
  for (size_t i = 0; i < svHex.size(); i += 2) {
    unsigned int uByte = 0;
    const auto [pEnd, error] = std::from_chars(svHex.data() + i, svHex.data() + i + 2, uByte, 16);
    if (error != std::errc() || pEnd != svHex.data() + i + 2) {
      return false;
    }
    strBytes += static_cast<char>(uByte);
  }
  return true;
}

bool ToNumber(std::string_view svText, uint64_t& u64Number) {
  const auto [pEnd, error] = std::from_chars(svText.data(), svText.data() + svText.size(), u64Number);
  return error == std::errc() && pEnd == svText.data() + svText.size();
}

// The value of the next line, which must have that key.
bool NextValue(std::string_view& svRest, std::string_view svKey, std::string_view& svValue) {
  const size_t uEnd = svRest.find('\n');
  if (uEnd == std::string_view::npos || svRest.substr(0, svKey.size()) != svKey ||
      svRest.substr(svKey.size(), 1) != " ") {
    return false;
  }
  svValue = svRest.substr(svKey.size() + 1, uEnd - svKey.size() - 1);
  svRest.remove_prefix(uEnd + 1);
  return true;
}

bool WriteAll(int iFile, const std::string& strText) {
  size_t uDone = 0;
  while (uDone < strText.size()) {
    const ssize_t iWritten = TEMP_FAILURE_RETRY(::write(iFile, strText.data() + uDone, strText.size() - uDone));
    if (iWritten < 0) {
      return false;
    }
    uDone += static_cast<size_t>(iWritten);
  }
  return true;
}

}  // namespace

std::string FormatPosition(const FollowPosition& position) {
  std::ostringstream text;
  text << kTitle << "\nlog " << ToHex(position.strLog) << "\ndevice " << position.u64Device << "\ninode "
       << position.u64Inode << "\noffset " << position.u64Offset << "\nhead " << ToHex(position.strHead) << "\nbefore "
       << ToHex(position.strBefore) << "\nend .\n";
  return text.str();
}

bool ParsePosition(const std::string& strText, FollowPosition& position) {
  std::string_view svRest = strText;
  const std::string strTitle = std::string(kTitle) + "\n";
  if (svRest.substr(0, strTitle.size()) != strTitle) {
    return false;
  }
  svRest.remove_prefix(strTitle.size());
  std::string_view svValue;
  return NextValue(svRest, "log", svValue) && FromHex(svValue, position.strLog) &&
         NextValue(svRest, "device", svValue) && ToNumber(svValue, position.u64Device) &&
         NextValue(svRest, "inode", svValue) && ToNumber(svValue, position.u64Inode) &&
         NextValue(svRest, "offset", svValue) && ToNumber(svValue, position.u64Offset) &&
         NextValue(svRest, "head", svValue) && FromHex(svValue, position.strHead) &&
         NextValue(svRest, "before", svValue) && FromHex(svValue, position.strBefore) &&
         NextValue(svRest, "end", svValue) && position.strHead.size() <= kLongestFile &&
         position.strBefore.size() <= position.u64Offset && position.u64Offset <= INT64_MAX;
}

CPositionFile::CPositionFile(std::string strPath) : m_strPath(std::move(strPath)) {}

CPositionFile::~CPositionFile() {
  if (m_iLock >= 0) {
    ::close(m_iLock);
  }
}

bool CPositionFile::Lock(std::string& strError) {
  const std::string strDirectory = std::filesystem::path(m_strPath).parent_path().string();
  if (!strDirectory.empty() && ::mkdir(strDirectory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    strError = Because("cannot make the directory " + strDirectory + " for the position; --position names another file",
                       errno);
    return false;
  }
  const std::string strFile = m_strPath + ".lock";
  m_iLock = ::open(strFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (m_iLock < 0) {
    strError = Because("cannot open " + strFile + "; --position names another file", errno);
    return false;
  }
  if (::flock(m_iLock, LOCK_EX | LOCK_NB) != 0) {
    char szHolder[24] = {};
    static_cast<void>(TEMP_FAILURE_RETRY(::pread(m_iLock, szHolder, sizeof(szHolder) - 1, 0)));
    uint64_t u64Holder = 0;
    const std::string_view svHolder(szHolder);
    const bool bKnown = ToNumber(svHolder.substr(0, svHolder.find('\n')), u64Holder);
    strError = errno != EWOULDBLOCK && !bKnown
                   ? Because("cannot lock " + strFile, errno)
                   : "another qmsend" + (bKnown ? ", process " + std::to_string(u64Holder) + "," : std::string()) +
                         " follows with the position file " + m_strPath;
    return false;
  }
  const std::string strNumber = std::to_string(::getpid()) + "\n";
  if (::ftruncate(m_iLock, 0) != 0 || !WriteAll(m_iLock, strNumber)) {
    strError = Because("cannot write " + strFile, errno);
    return false;
  }
  return true;
}

CPositionFile::Loaded CPositionFile::Load(const std::string& strLog, FollowPosition& position, timespec& noted,
                                          std::string& strError) const {
  const int iFile = ::open(m_strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (iFile < 0) {
    strError = Because("cannot read the position file " + m_strPath, errno);
    return errno == ENOENT ? Loaded::None : Loaded::Failed;
  }
  std::string strText(kLongestFile, '\0');
  struct stat info {};
  const ssize_t iRead = ::fstat(iFile, &info) == 0 && S_ISREG(info.st_mode)
                            ? TEMP_FAILURE_RETRY(::pread(iFile, strText.data(), strText.size(), 0))
                            : 0;
  ::close(iFile);
  strText.resize(static_cast<size_t>(iRead < 0 ? 0 : iRead));
  if (!ParsePosition(strText, position)) {
    strError = "the position file " + m_strPath + " makes no sense; without it the log is sent from its beginning";
    return Loaded::Failed;
  }
  if (position.strLog != strLog) {
    strError = "the position file " + m_strPath + " belongs to " + position.strLog + "; --position names another";
    return Loaded::Failed;
  }
  noted = info.st_mtim;
  return Loaded::Some;
}

bool CPositionFile::Note(const FollowPosition& position, std::string& strError) const {
  const std::string strNew = m_strPath + ".new";
  const int iFile = ::open(strNew.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  const bool bWritten = iFile >= 0 && WriteAll(iFile, FormatPosition(position)) && ::fsync(iFile) == 0;
  const int iError = errno;
  if (iFile >= 0) {
    ::close(iFile);
  }
  if (!bWritten) {
    strError = Because("cannot write the position file " + strNew, iError);
    return false;
  }
  if (::rename(strNew.c_str(), m_strPath.c_str()) != 0) {
    strError = Because("cannot replace the position file " + m_strPath, errno);
    return false;
  }
  std::string strDirectory = std::filesystem::path(m_strPath).parent_path().string();
  const int iDirectory = ::open(strDirectory.empty() ? "." : strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (iDirectory >= 0) {
    static_cast<void>(::fsync(iDirectory));
    ::close(iDirectory);
  }
  return true;
}
