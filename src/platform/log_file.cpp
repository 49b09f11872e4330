#include "platform/log_file.h"

#include <fcntl.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/details/os.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace {

// UTC, so that lines sort by their text.
constexpr char kLinePattern[] = "%Y-%m-%dT%H:%M:%S.%fZ %P %t %v";
constexpr uint32_t kMaxRotatedFiles = 200000;  // the sink takes no more
constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0750;

[[noreturn]] void ThrowErrno(int iError, const char* pszWhat) {
  throw std::system_error(iError, std::generic_category(), pszWhat);
}

class CDescriptor {
 public:
  explicit CDescriptor(int iFd) : m_iFd(iFd) {}
  ~CDescriptor() {
    if (m_iFd >= 0) {
      close(m_iFd);
    }
  }
  CDescriptor(const CDescriptor&) = delete;
  CDescriptor& operator=(const CDescriptor&) = delete;
  int Get() const { return m_iFd; }

 private:
  const int m_iFd;
};

void PutLine(spdlog::sinks::sink& sink, std::chrono::system_clock::time_point time, size_t uThread,
             std::string_view svText) {
  spdlog::details::log_msg line(time, spdlog::source_loc{}, spdlog::string_view_t{}, spdlog::level::info,
                                spdlog::string_view_t(svText.data(), svText.size()));
  line.thread_id = uThread;
  sink.log(line);
}

}  // namespace

CLogFile::CLogFile(const LogFileSettings& settings, std::string_view svChannel, bool bKeepAll)
    : m_settings(settings),
      m_strPath(settings.strDirectory + "/" + std::string(svChannel) + ".log"),
      m_bKeepAll(bKeepAll),
      m_u64SizeLimit(settings.u64MaxFileSize) {
  const std::lock_guard lock(m_mutex);
  OpenLocked();
}

CLogFile::~CLogFile() = default;

void CLogFile::OpenLocked() {
  if (mkdir(m_settings.strDirectory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
    ThrowErrno(errno, "log directory");
  }
  spdlog::file_event_handlers handlers;
  handlers.before_open = [this](const spdlog::filename_t& strPath) { BeforeOpen(strPath); };
  handlers.after_open = [this](const spdlog::filename_t&, FILE* pFile) { AfterOpen(pFile); };
  auto pSink = std::make_unique<spdlog::sinks::rotating_file_sink_st>(
      m_strPath, m_u64SizeLimit, std::min(m_settings.dwMaxFiles - 1, kMaxRotatedFiles), false, handlers);
  pSink->set_formatter(std::make_unique<spdlog::pattern_formatter>(kLinePattern, spdlog::pattern_time_type::utc, "\n"));
  m_pSink = std::move(pSink);
}

// The sink itself opens by name and with the umask's mode: what it will find there is made here.
void CLogFile::BeforeOpen(const std::string& strPath) {
  // O_NONBLOCK: a FIFO put in the file's place must not stop us.
  const CDescriptor file(
      open(strPath.c_str(), O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kFileMode));
  if (file.Get() < 0) {
    ThrowErrno(errno, "log file");
  }
  struct stat info;
  if (fstat(file.Get(), &info) != 0) {
    ThrowErrno(errno, "log file");
  }
  if (!S_ISREG(info.st_mode)) {
    ThrowErrno(EINVAL, "log file is not a regular file");
  }
  if ((info.st_mode & ALLPERMS) != kFileMode && fchmod(file.Get(), kFileMode) != 0) {
    ThrowErrno(errno, "log file mode");
  }
  m_device = info.st_dev;
  m_inode = info.st_ino;
  if (info.st_size == 0) {
    return;
  }
  if (m_pSink != nullptr && m_bKeepAll && m_settings.dwMaxFiles > 1) {
    // Rotation, and the file still has its lines: it could not be renamed and the sink is about to empty it.
    m_u64SizeLimit = static_cast<uint64_t>(info.st_size) + m_settings.u64MaxFileSize;
    ThrowErrno(EIO, "log file cannot be rotated");
  }
  // A process that was killed or a full disk may have left half a line, which must not swallow the next one. Where this
  // write fails, so will the next line's.
  char cLast = '\n';
  if (pread(file.Get(), &cLast, 1, info.st_size - 1) == 1 && cLast != '\n') {
    [[maybe_unused]] const ssize_t iWritten = write(file.Get(), "\n", 1);
  }
}

void CLogFile::AfterOpen(FILE* pFile) const {
  struct stat info;
  if (fstat(fileno(pFile), &info) != 0) {
    ThrowErrno(errno, "log file");
  }
  if (info.st_dev != m_device || info.st_ino != m_inode) {
    ThrowErrno(EINVAL, "log file was exchanged");
  }
  fcntl(fileno(pFile), F_SETFD, FD_CLOEXEC);
}

void CLogFile::Write(std::chrono::system_clock::time_point time, size_t uThread, std::string_view svText) noexcept {
  const std::lock_guard lock(m_mutex);
  WriteLocked(time, uThread, svText, false);
}

void CLogFile::WriteThrough(size_t uThread, std::string_view svText) noexcept {
  const std::lock_guard lock(m_mutex);
  WriteLocked(std::chrono::system_clock::now(), uThread, svText, true);
}

void CLogFile::WriteLocked(std::chrono::system_clock::time_point time, size_t uThread, std::string_view svText,
                           bool bFlush) noexcept {
  for (int iTry = 0; iTry < (m_bKeepAll ? 2 : 1); ++iTry) {
    try {
      if (m_pSink == nullptr) {
        OpenLocked();
      }
      if (m_u64Lost != 0) {
        char szReport[64];
        const int iLength = snprintf(szReport, sizeof szReport, "L3 qmlog lost[%llu] lines",
                                     static_cast<unsigned long long>(m_u64Lost));
        PutLine(*m_pSink, time, uThread, std::string_view(szReport, static_cast<size_t>(iLength)));
      }
      PutLine(*m_pSink, time, uThread, svText);
      if (bFlush || m_u64Lost != 0) {
        m_pSink->flush();
        m_u64Unflushed = 0;
        m_u64Lost = 0;
      } else {
        ++m_u64Unflushed;
      }
      return;
    } catch (...) {
      FailLocked();
    }
  }
  ++m_u64Lost;
}

// A sink that threw may be left without an open file and would crash at its next line.
void CLogFile::FailLocked() noexcept {
  const int iError = errno;
  m_u64Lost += std::exchange(m_u64Unflushed, 0);
  m_pSink.reset();
  if (!m_bFailureTold) {
    m_bFailureTold = true;
    fprintf(stderr, "qmlog: cannot write %s (errno %d)\n", m_strPath.c_str(), iError);
  }
}

void CLogFile::CountLost() noexcept {
  const std::lock_guard lock(m_mutex);
  ++m_u64Lost;
}

void CLogFile::Flush() noexcept {
  const std::lock_guard lock(m_mutex);
  if (m_pSink == nullptr) {
    return;
  }
  try {
    m_pSink->flush();
    m_u64Unflushed = 0;
  } catch (...) {
    FailLocked();
  }
}

void CLogFile::Close() noexcept {
  Flush();
  const std::lock_guard lock(m_mutex);
  m_pSink.reset();
}
