#include "platform/log_channel.h"

#include <pthread.h>
#include <signal.h>
#include <spdlog/common.h>
#include <spdlog/details/mpmc_blocking_q.h>
#include <spdlog/details/os.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <map>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/file_info.h"
#include "platform/log_escape.h"

namespace {

constexpr std::string_view kKeepAllChannel = "qmlogcacheerror";
constexpr size_t kMaxNameLength = 64;

// Bounds of what one stream may have waiting, and of what all have waiting together.
constexpr uint64_t kMaxPendingLines = 8192;
constexpr uint64_t kMaxPendingBytes = uint64_t{8} << 20;
constexpr size_t kMaxQueuedLines = 32768;

constexpr std::chrono::seconds kCloseWait{5};
constexpr uint64_t kDefaultMaxFileSize = uint64_t{10} << 20;
constexpr uint32_t kDefaultMaxFiles = 5;

struct QueuedLine {
  std::shared_ptr<CLogStream> pStream;
  std::chrono::system_clock::time_point time;
  size_t uThread = 0;
  uint64_t u64DroppedBefore = 0;
  std::string strText;
};

class CLogWriter {
 public:
  // Made at the first use and never destroyed. Throws when its thread cannot be started.
  static CLogWriter& Instance() {
    static CLogWriter* const pWriter = new CLogWriter;
    return *pWriter;
  }

  // Room for one line, which Post then fills; false when there is none.
  [[nodiscard]] bool Reserve() {
    if (m_uQueued.fetch_add(1) >= kMaxQueuedLines) {
      m_uQueued.fetch_sub(1);
      return false;
    }
    return true;
  }
  // Never blocks: room was reserved, and a line's room is given back only after it has left the queue.
  void Post(std::unique_ptr<QueuedLine> pLine) { m_queue.enqueue(std::move(pLine)); }

 private:
  CLogWriter() : m_queue(kMaxQueuedLines) {
    // The thread inherits the mask: signals are for the host's threads.
    sigset_t setAll;
    sigset_t setBefore;
    sigfillset(&setAll);
    pthread_sigmask(SIG_SETMASK, &setAll, &setBefore);
    int iError = 0;
    try {
      std::thread([this] { Run(); }).detach();
    } catch (const std::system_error& error) {
      iError = error.code().value();
    }
    pthread_sigmask(SIG_SETMASK, &setBefore, nullptr);
    if (iError != 0) {
      throw std::system_error(iError, std::generic_category(), "log writer");
    }
  }

  [[noreturn]] void Run() noexcept;

  std::atomic<size_t> m_uQueued{0};
  spdlog::details::mpmc_blocking_queue<std::unique_ptr<QueuedLine>> m_queue;
};

class CLogRegistry {
 public:
  // Never destroyed: a handle may be used by a thread that outlives main.
  static CLogRegistry& Instance() {
    static CLogRegistry* const pRegistry = new CLogRegistry;
    return *pRegistry;
  }

  CLogChannel* FindOrMake(std::string_view svName) {
    const std::lock_guard lock(m_mutex);
    auto itChannel = m_mapChannels.find(svName);
    if (itChannel == m_mapChannels.end()) {
      itChannel = m_mapChannels.emplace(std::string(svName), std::make_unique<CLogChannel>(svName)).first;
    }
    return itChannel->second.get();
  }

  void SetFileSettings(LogFileSettings settings) {
    const std::lock_guard lock(m_mutex);
    m_optSettings = std::move(settings);
  }

  LogFileSettings FileSettings() {
    {
      const std::lock_guard lock(m_mutex);
      if (m_optSettings) {
        return *m_optSettings;
      }
    }
    char szDirectory[PATH_MAX];
    if (QmGetModuleFilePath(szDirectory, sizeof szDirectory) != 0) {
      throw std::system_error(errno, std::generic_category(), "module directory");
    }
    return {std::string(szDirectory) + "/../log", kDefaultMaxFileSize, kDefaultMaxFiles};
  }

 private:
  std::mutex m_mutex;  // guards both
  std::map<std::string, std::unique_ptr<CLogChannel>, std::less<>> m_mapChannels;
  std::optional<LogFileSettings> m_optSettings;
};

std::string MakeLine(int iLevel, std::string_view svText) {
  // The line's own end; one call makes one line with or without it.
  if (!svText.empty() && svText.back() == '\n') {
    svText.remove_suffix(1);
  }
  std::string strLine = "L" + std::to_string(iLevel) + " ";
  strLine.reserve(strLine.size() + svText.size());
  AppendEscapedLogText(svText, &strLine);
  return strLine;
}

}  // namespace

// One opening of a channel.
class CLogStream : public std::enable_shared_from_this<CLogStream> {
 public:
  CLogStream(const LogFileSettings& settings, std::string_view svChannel, bool bKeepAll)
      : m_file(settings, svChannel, bKeepAll) {}

  CLogFile& File() { return m_file; }

  // Calls must not overlap: the channel's stream mutex is held.
  void Post(std::unique_ptr<QueuedLine> pLine) {
    const uint64_t u64Bytes = pLine->strText.size();
    const uint64_t u64PendingBytes = m_u64PendingBytes.load();
    // A line that is by itself beyond the bound may pass when nothing else waits.
    const bool bFits = m_u64PendingLines.load() < kMaxPendingLines &&
                       (u64PendingBytes == 0 || u64PendingBytes + u64Bytes <= kMaxPendingBytes);
    CLogWriter& writer = CLogWriter::Instance();
    if (!bFits || !writer.Reserve()) {
      CountDropped();
      return;
    }
    m_u64PendingLines.fetch_add(1);
    m_u64PendingBytes.fetch_add(u64Bytes);
    pLine->pStream = shared_from_this();
    pLine->u64DroppedBefore = m_u64Dropped.exchange(0);
    pLine->time = std::chrono::system_clock::now();
    writer.Post(std::move(pLine));
  }

  void CountDropped() { m_u64Dropped.fetch_add(1); }

  // In the writer's thread.
  void WriteQueued(const QueuedLine& line) noexcept {
    ReportDropped(line.u64DroppedBefore);
    m_file.Write(line.time, line.uThread, line.strText);
    m_u64PendingBytes.fetch_sub(line.strText.size());
    // Only this thread takes lines off the count. Flushed before the last one is taken off, as then Drain returns.
    if (m_u64PendingLines.load() == 1) {
      ReportDropped(m_u64Dropped.exchange(0));
      m_file.Flush();
    }
    if (m_u64PendingLines.fetch_sub(1) == 1) {
      const std::lock_guard lock(m_mutex);
      m_drained.notify_all();
    }
  }

  // The channel takes no more lines. Closes the file unless the writer is stuck, which then closes it when it is done.
  void Finish() noexcept {
    {
      std::unique_lock lock(m_mutex);
      const auto deadline = std::chrono::steady_clock::now() + kCloseWait;
      if (!m_drained.wait_until(lock, deadline, [this] { return m_u64PendingLines.load() == 0; })) {
        return;
      }
    }
    ReportDropped(m_u64Dropped.exchange(0));
    m_file.Close();
  }

 private:
  void ReportDropped(uint64_t u64Count) noexcept {
    if (u64Count == 0) {
      return;
    }
    char szReport[64];
    const int iLength =
        snprintf(szReport, sizeof szReport, "L3 qmlog dropped[%llu] lines", static_cast<unsigned long long>(u64Count));
    m_file.Write(std::chrono::system_clock::now(), spdlog::details::os::thread_id(),
                 std::string_view(szReport, static_cast<size_t>(iLength)));
  }

  CLogFile m_file;
  std::atomic<uint64_t> m_u64PendingLines{0};
  std::atomic<uint64_t> m_u64PendingBytes{0};
  std::atomic<uint64_t> m_u64Dropped{0};  // not yet told in the file
  std::mutex m_mutex;                     // for m_drained alone
  std::condition_variable m_drained;
};

void CLogWriter::Run() noexcept {
  pthread_setname_np(pthread_self(), "qmlog");
  for (;;) {
    std::unique_ptr<QueuedLine> pLine;
    if (m_queue.dequeue_for(pLine, std::chrono::hours(1))) {
      m_uQueued.fetch_sub(1);
      pLine->pStream->WriteQueued(*pLine);
    }
  }
}

CLogChannel::CLogChannel(std::string_view svName) : m_strName(svName), m_bKeepAll(svName == kKeepAllChannel) {}

void CLogChannel::Open() {
  const std::lock_guard lockLifecycle(m_mutexLifecycle);
  if (m_uOpenCount == 0) {
    auto pStream = std::make_shared<CLogStream>(CLogRegistry::Instance().FileSettings(), m_strName, m_bKeepAll);
    if (!m_bKeepAll) {
      CLogWriter::Instance();
    }
    const std::lock_guard lockStream(m_mutexStream);
    m_pStream = std::move(pStream);
    m_bOpen.store(true, std::memory_order_relaxed);
  }
  ++m_uOpenCount;
}

void CLogChannel::Close() noexcept {
  const std::lock_guard lockLifecycle(m_mutexLifecycle);
  if (m_uOpenCount == 0 || --m_uOpenCount != 0) {
    return;
  }
  std::shared_ptr<CLogStream> pStream;
  {
    const std::lock_guard lockStream(m_mutexStream);
    m_bOpen.store(false, std::memory_order_relaxed);
    pStream = std::move(m_pStream);
    m_pStream = nullptr;
  }
  pStream->Finish();
}

void CLogChannel::Print(int iLevel, std::string_view svText) noexcept {
  try {
    auto pLine = std::make_unique<QueuedLine>();
    pLine->uThread = spdlog::details::os::thread_id();
    pLine->strText = MakeLine(iLevel, svText);
    std::unique_lock lock(m_mutexStream);
    if (m_pStream == nullptr) {
      return;
    }
    if (!m_bKeepAll) {
      m_pStream->Post(std::move(pLine));
      return;
    }
    const std::shared_ptr<CLogStream> pStream = m_pStream;
    lock.unlock();
    pStream->File().WriteThrough(pLine->uThread, pLine->strText);
  } catch (...) {
    // No memory for the line.
    const std::lock_guard lock(m_mutexStream);
    if (m_pStream == nullptr) {
      return;
    }
    if (m_bKeepAll) {
      m_pStream->File().CountLost();
    } else {
      m_pStream->CountDropped();
    }
  }
}

CLogChannel* FindOrMakeLogChannel(std::string_view svName) {
  const bool bValid =
      !svName.empty() && svName.size() <= kMaxNameLength && std::all_of(svName.begin(), svName.end(), [](char cByte) {
        return (cByte >= 'a' && cByte <= 'z') || (cByte >= 'A' && cByte <= 'Z') || (cByte >= '0' && cByte <= '9') ||
               cByte == '-' || cByte == '_';
      });
  return bValid ? CLogRegistry::Instance().FindOrMake(svName) : nullptr;
}

void SetLogFileSettings(LogFileSettings settings) {
  CLogRegistry::Instance().SetFileSettings(std::move(settings));
}
