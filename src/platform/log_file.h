// A channel's file on disk: lines with time, process and thread, rotated by size, readable by its owner alone.
#ifndef QMLOGCACHE_PLATFORM_LOG_FILE_H_
#define QMLOGCACHE_PLATFORM_LOG_FILE_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace spdlog::sinks {
class sink;
}

struct LogFileSettings {
  std::string strDirectory;
  uint64_t u64MaxFileSize = 0;  // bytes
  uint32_t dwMaxFiles = 0;      // in all, the one being written included
};

// Any thread may call. A line that cannot be written is counted; the file is opened anew for the next line, which is
// preceded by a line "qmlog lost[%llu] lines". The count may be too high, as it holds lines that were still buffered.
class CLogFile {
 public:
  // Opens or creates <directory>/<channel>.log, and the directory's last level when it is missing. Throws when that
  // fails or the file is anything but a regular file. With bKeepAll a line is tried twice, and a file that cannot be
  // renamed for rotation goes on growing instead of being emptied.
  CLogFile(const LogFileSettings& settings, std::string_view svChannel, bool bKeepAll);
  ~CLogFile();
  CLogFile(const CLogFile&) = delete;
  CLogFile& operator=(const CLogFile&) = delete;

  // svText holds no line break. The line may stay buffered until Flush.
  void Write(std::chrono::system_clock::time_point time, size_t uThread, std::string_view svText) noexcept;
  // Stamps the line with the present time; it is with the operating system on return.
  void WriteThrough(size_t uThread, std::string_view svText) noexcept;
  // A line that its sender had no memory for.
  void CountLost() noexcept;
  void Flush() noexcept;
  // Flushes and closes. A later write opens the file again.
  void Close() noexcept;

 private:
  void WriteLocked(std::chrono::system_clock::time_point time, size_t uThread, std::string_view svText,
                   bool bFlush) noexcept;
  void FailLocked() noexcept;
  void OpenLocked();
  void BeforeOpen(const std::string& strPath);
  void AfterOpen(FILE* pFile) const;

  const LogFileSettings m_settings;
  const std::string m_strPath;
  const bool m_bKeepAll;

  std::mutex m_mutex;                            // guards everything below
  std::unique_ptr<spdlog::sinks::sink> m_pSink;  // null after a failure and after Close
  uint64_t m_u64SizeLimit;
  uint64_t m_u64Unflushed = 0;  // lines written since the last flush
  uint64_t m_u64Lost = 0;
  bool m_bFailureTold = false;
  dev_t m_device = 0;  // the file that BeforeOpen looked at
  ino_t m_inode = 0;
};

#endif  // QMLOGCACHE_PLATFORM_LOG_FILE_H_
