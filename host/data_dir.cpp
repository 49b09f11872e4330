#include "host/data_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <thread>
#include <utility>

namespace {

constexpr time_t kLongestWait = 5;

std::string Because(const std::string& strWhat, int iError) {
  return strWhat + ": " + std::strerror(iError);
}

// The number in a small text file; 0 when there is none.
long long ReadNumberFrom(int iFile) {
  char szText[32] = {};
  const ssize_t iRead = TEMP_FAILURE_RETRY(pread(iFile, szText, sizeof(szText) - 1, 0));
  long long i64Number = 0;
  // NOLINTNEXTLINE(cert-err34-c): the text is shorter than what could overflow
  return iRead > 0 && std::sscanf(szText, "%18lld", &i64Number) == 1 ? i64Number : 0;
}

// The number in the file of that name; 0 when there is none.
long long ReadNumberOf(const std::string& strFile) {
  const int iFile = open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (iFile < 0) {
    return 0;
  }
  const long long i64Number = ReadNumberFrom(iFile);
  close(iFile);
  return i64Number;
}

bool WriteNumberTo(int iFile, long long i64Number) {
  const std::string strText = std::to_string(i64Number) + "\n";
  return TEMP_FAILURE_RETRY(pwrite(iFile, strText.data(), strText.size(), 0)) == static_cast<ssize_t>(strText.size()) &&
         ftruncate(iFile, static_cast<off_t>(strText.size())) == 0;
}

}  // namespace

bool MakeDirectories(const std::string& strPath, mode_t mode, std::string& strError) {
  std::filesystem::path made;
  for (const auto& part : std::filesystem::path(strPath)) {
    made /= part;
    struct stat info {};
    if (stat(made.c_str(), &info) == 0) {
      if (!S_ISDIR(info.st_mode)) {
        strError = made.string() + " is not a directory";
        return false;
      }
      continue;
    }
    if ((mkdir(made.c_str(), mode) != 0 && errno != EEXIST) || chmod(made.c_str(), mode) != 0) {
      strError = Because("cannot make the directory " + made.string(), errno);
      return false;
    }
  }
  return true;
}

CDataDir::CDataDir(std::string strPath) : m_strPath(std::move(strPath)) {}

CDataDir::~CDataDir() {
  if (m_iLock >= 0) {
    close(m_iLock);
  }
}

bool CDataDir::Lock(std::string& strError) {
  const std::string strFile = m_strPath + "/qmhost.lock";
  m_iLock = open(strFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (m_iLock < 0) {
    strError = Because("cannot open " + strFile, errno);
    return false;
  }
  if (flock(m_iLock, LOCK_EX | LOCK_NB) != 0) {
    strError = errno == EWOULDBLOCK
                   ? "another qmhost, process " + std::to_string(ReadNumberFrom(m_iLock)) + ", uses " + m_strPath
                   : Because("cannot lock " + strFile, errno);
    return false;
  }
  if (!WriteNumberTo(m_iLock, getpid())) {
    strError = Because("cannot write " + strFile, errno);
    return false;
  }
  return true;
}

bool CDataDir::AwaitNewSecond() const {
  const long long i64Last = ReadNumberOf(m_strPath + "/qmhost.start");
  if (i64Last - time(nullptr) > kLongestWait) {
    return false;
  }
  while (time(nullptr) <= i64Last) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

bool CDataDir::NoteStart(std::string& strError) const {
  const std::string strFile = m_strPath + "/qmhost.start";
  const std::string strNew = strFile + ".new";
  // The clock may have been set back: what an earlier start numbered stays behind this second.
  const long long i64Second = std::max<long long>(ReadNumberOf(strFile), time(nullptr));
  const int iFile = open(strNew.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  bool bWritten = iFile >= 0 && WriteNumberTo(iFile, i64Second) && fsync(iFile) == 0;
  const int iError = errno;
  if (iFile >= 0) {
    close(iFile);
  }
  if (!bWritten) {
    strError = Because("cannot write " + strNew, iError);
    return false;
  }
  if (rename(strNew.c_str(), strFile.c_str()) != 0) {
    strError = Because("cannot replace " + strFile, errno);
    return false;
  }
  const int iDirectory = open(m_strPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (iDirectory >= 0) {
    static_cast<void>(fsync(iDirectory));
    close(iDirectory);
  }
  return true;
}
