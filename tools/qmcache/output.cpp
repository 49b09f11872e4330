#include "tools/qmcache/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "tools/qmcache/interruption.h"
#include "tools/qmcache/printable.h"
#include "tools/qmcache/progress.h"

namespace {

constexpr size_t kFlushSize = 65536;

[[noreturn]] void ThrowErrno(const std::string& strWhat) {
  throw std::system_error(errno, std::generic_category(), strWhat);
}

// A directory that cannot be opened for reading keeps the name all the same.
void SyncDirectoryOf(const std::string& strFile) {
  const size_t uSlash = strFile.rfind('/');
  const std::string strDirectory = uSlash == std::string::npos ? "." : strFile.substr(0, uSlash + 1);
  const int iDirectory = open(strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (iDirectory >= 0) {
    static_cast<void>(fsync(iDirectory));
    close(iDirectory);
  }
}

}  // namespace

COutput::COutput() : m_iDescriptor(STDOUT_FILENO), m_strName("standard output") {}

COutput::COutput(const std::string& strPath) : COutput() {
  struct stat info {};
  struct stat standard {};
  const bool bThere = stat(strPath.c_str(), &info) == 0;
  if (strPath == "-" || (bThere && fstat(STDOUT_FILENO, &standard) == 0 && info.st_dev == standard.st_dev &&
                         info.st_ino == standard.st_ino)) {
    return;
  }
  m_strName = strPath;
  if (bThere && (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode))) {
    OpenDirectly();
    return;
  }
  if (bThere && !S_ISREG(info.st_mode)) {
    throw std::system_error(EINVAL, std::generic_category(), "cannot write " + strPath + ", it is no regular file");
  }
  if (lstat(strPath.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
    throw std::system_error(ELOOP, std::generic_category(), "cannot write " + strPath);
  }
  MakeTemporary();
}

COutput::~COutput() {
  if (m_bOwned) {
    close(m_iDescriptor);
  }
  if (!m_strTemporary.empty()) {
    unlink(m_strTemporary.c_str());
  }
}

void COutput::OpenDirectly() {
  int iDescriptor = -1;
  do {
    EndIfInterrupted();
    iDescriptor = open(m_strName.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);  // a pipe waits for its reader
  } while (iDescriptor < 0 && errno == EINTR);
  if (iDescriptor < 0) {
    ThrowErrno("cannot write " + m_strName);
  }
  m_iDescriptor = iDescriptor;
  m_bOwned = true;
}

void COutput::MakeTemporary() {
  std::string strTemporary = m_strName + ".XXXXXX";
  const int iDescriptor = mkostemp(strTemporary.data(), O_CLOEXEC);  // its owner's alone
  if (iDescriptor < 0) {
    ThrowErrno("cannot write " + strTemporary);
  }
  m_iDescriptor = iDescriptor;
  m_bOwned = true;
  m_strTemporary = std::move(strTemporary);
}

void COutput::EndLine() {
  if (m_strBuffer.size() >= kFlushSize || IsTerminal()) {
    Flush();
  }
}

void COutput::Line(std::string_view svText) {
  m_strBuffer.append(svText).append("\n");
  EndLine();
}

void COutput::Flush() {
  size_t uDone = 0;
  while (uDone < m_strBuffer.size()) {
    EndIfInterrupted();
    const ssize_t iWritten = write(m_iDescriptor, m_strBuffer.data() + uDone, m_strBuffer.size() - uDone);
    if (iWritten >= 0) {
      uDone += static_cast<size_t>(iWritten);
    } else if (errno == EPIPE) {
      throw ReaderGone();
    } else if (errno != EINTR) {
      ThrowErrno("cannot write " + m_strName);
    }
  }
  m_strBuffer.clear();
}

void COutput::Finish() {
  Flush();
  if (!m_strTemporary.empty()) {
    if (fsync(m_iDescriptor) != 0 || rename(m_strTemporary.c_str(), m_strName.c_str()) != 0) {
      ThrowErrno("cannot write " + m_strName);
    }
    m_strTemporary.clear();
    SyncDirectoryOf(m_strName);
  }
  m_bFinished = true;
}

bool COutput::IsTerminal() const {
  return !m_bOwned && isatty(m_iDescriptor) == 1;
}

void Complain(std::string_view svText) {
  CProgress::TakeAway();
  std::fprintf(stderr, "qmcache: %s\n", Printable(svText).c_str());
}
