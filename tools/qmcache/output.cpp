#include "tools/qmcache/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "platform/log_escape.h"
#include "tools/qmcache/interruption.h"
#include "tools/qmcache/progress.h"

namespace {

constexpr size_t kFlushSize = 65536;

[[noreturn]] void ThrowErrno(const std::string& strWhat) {
  throw std::system_error(errno, std::generic_category(), strWhat);
}

}  // namespace

size_t DirectionMarkLength(std::string_view svText) {
  constexpr std::array<std::string_view, 18> kMarks = {"\u2028", "\u2029", "\u061C", "\u200B", "\u200C", "\u200D",
                                                       "\u200E", "\u200F", "\u202A", "\u202B", "\u202C", "\u202D",
                                                       "\u202E", "\u2066", "\u2067", "\u2068", "\u2069", "\uFEFF"};
  for (const std::string_view svMark : kMarks) {
    if (svText.starts_with(svMark)) {
      return svMark.size();
    }
  }
  return 0;
}

COutput::COutput() : m_iDescriptor(STDOUT_FILENO), m_strName("standard output") {}

COutput::COutput(const std::string& strPath) : COutput() {
  if (strPath == "-") {
    return;
  }
  constexpr mode_t kOwnerOnly = 0600;
  m_strName = strPath;
  m_iDescriptor =
      open(strPath.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, kOwnerOnly);
  if (m_iDescriptor < 0) {
    ThrowErrno("cannot write " + strPath);
  }
  m_bOwned = true;
  struct stat info {};
  if (fstat(m_iDescriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(m_iDescriptor);
    m_bOwned = false;
    throw std::system_error(EINVAL, std::generic_category(), "cannot write " + strPath + ", it is no regular file");
  }
  if (ftruncate(m_iDescriptor, 0) != 0) {
    const int iError = errno;
    close(m_iDescriptor);
    m_bOwned = false;
    throw std::system_error(iError, std::generic_category(), "cannot write " + strPath);
  }
}

COutput::~COutput() {
  if (m_bOwned) {
    close(m_iDescriptor);
  }
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
  if (m_bOwned && fsync(m_iDescriptor) != 0) {
    ThrowErrno("cannot write " + m_strName);
  }
}

bool COutput::IsTerminal() const {
  return !m_bOwned && isatty(m_iDescriptor) == 1;
}

std::string Printable(std::string_view svText) {
  std::string strEscaped;
  AppendEscapedLogText(svText, &strEscaped);
  std::string strText;
  for (size_t uAt = 0; uAt < strEscaped.size();) {
    const size_t uMark = DirectionMarkLength(std::string_view(strEscaped).substr(uAt));
    if (uMark == 0) {
      strText += strEscaped[uAt++];
      continue;
    }
    for (const size_t uEnd = uAt + uMark; uAt < uEnd; ++uAt) {
      constexpr char kHexDigits[] = "0123456789abcdef";
      const auto cByte = static_cast<unsigned char>(strEscaped[uAt]);
      strText.append("\\x").append(1, kHexDigits[cByte >> 4]).append(1, kHexDigits[cByte & 0xF]);
    }
  }
  return strText;
}

void Complain(std::string_view svText) {
  CProgress::TakeAway();
  std::fprintf(stderr, "qmcache: %s\n", Printable(svText).c_str());
}
