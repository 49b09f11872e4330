// Log channels: the objects behind log handles, and the writer that takes their lines off the callers' hands.
//
// A channel is made at its first opening and never freed, so that a handle is good for ever. Each opening has a stream
// with its file; lines still queued keep their stream alive. Queued lines of all channels go through one thread, which
// blocks all signals. Locks: the registry's, then a channel's lifecycle mutex, then its stream mutex; none of them is
// held during file I/O except, by opening and closing, the lifecycle mutex.
#ifndef QMLOGCACHE_PLATFORM_LOG_CHANNEL_H_
#define QMLOGCACHE_PLATFORM_LOG_CHANNEL_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/log_file.h"

class CLogStream;

class CLogChannel {
 public:
  explicit CLogChannel(std::string_view svName);
  CLogChannel(const CLogChannel&) = delete;
  CLogChannel& operator=(const CLogChannel&) = delete;

  // Opens the file with the present settings when the channel is not open, and counts the opening. Throws.
  void Open();
  // Undoes one Open; does nothing without one. The last one waits a few seconds at most for queued lines.
  void Close() noexcept;
  const std::string& Name() const { return m_strName; }
  bool IsOpen() const { return m_bOpen.load(std::memory_order_relaxed); }

  // Writes or queues one line; svText is as the caller gave it. Does nothing when the channel is not open.
  void Print(int iLevel, std::string_view svText) noexcept;

 private:
  const std::string m_strName;
  const bool m_bKeepAll;
  std::atomic<bool> m_bOpen{false};

  std::mutex m_mutexLifecycle;  // guards m_uOpenCount; held while the file is opened or closed
  size_t m_uOpenCount = 0;

  std::mutex m_mutexStream;  // guards m_pStream; orders a channel's lines by their time
  std::shared_ptr<CLogStream> m_pStream;
};

// The channel of that name, made when it is new; null when the name holds anything but letters, digits, '-' and '_', or
// is empty or longer than 64 bytes. Throws std::bad_alloc.
CLogChannel* FindOrMakeLogChannel(std::string_view svName);

// What files opened from now on look like. Throws std::bad_alloc.
void SetLogFileSettings(LogFileSettings settings);

#endif  // QMLOGCACHE_PLATFORM_LOG_CHANNEL_H_
