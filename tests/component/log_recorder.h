// The logging library of a host that brings its own: the executable defines LogInit, LogPrint, LogPrintStr and
// LogUninit, and keeps what the component prints.
//
// Every operation may be called from any thread. A handle is never freed, so that a line that comes after its channel
// was closed can be counted.
#ifndef QMLOGCACHE_TESTS_COMPONENT_LOG_RECORDER_H_
#define QMLOGCACHE_TESTS_COMPONENT_LOG_RECORDER_H_

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::string_view kMainChannel = "qmlogcache";
inline constexpr std::string_view kErrorChannel = "qmlogcacheerror";

struct LogLine {
  std::string strChannel;
  int iLevel = 0;
  std::string strText;
};

class CLogRecorder {
 public:
  static CLogRecorder& Get();

  // Forgets lines, tap and the count of late lines; open channels stay open.
  void Reset();
  // Called for each line instead of keeping it, one at a time, on the printing thread. It must not print.
  void SetTap(std::function<void(const LogLine&)> pfnTap);

  // Lines whose text begins with svPrefix, in the order in which they came.
  std::vector<LogLine> Lines(std::string_view svPrefix);
  size_t Count(std::string_view svPrefix);
  // Waits until there are uCount such lines; false when they do not come (a guard against hanging, not a measurement).
  [[nodiscard]] bool WaitForLines(std::string_view svPrefix, size_t uCount = 1);
  // The first such line, waited for; empty when it does not come.
  std::string WaitForText(std::string_view svPrefix);
  int OpenChannels();
  // Lines printed on a channel that had been closed before.
  size_t LinesAfterClose();

  // The library's side.
  void* Open(const char* pszChannel);
  void Close(void* hLog);
  void Print(void* hLog, int iLevel, std::string strText);

 private:
  struct Channel {
    std::string strName;
    bool bOpen = true;
  };

  size_t CountLocked(std::string_view svPrefix);

  std::mutex m_mutex;  // guards everything below
  std::condition_variable m_changed;
  std::vector<Channel*> m_vecChannels;
  std::vector<LogLine> m_vecLines;
  std::function<void(const LogLine&)> m_pfnTap;
  size_t m_uLinesAfterClose = 0;
};

// Value of "name[value]" in a log line; empty when there is none.
std::string LogField(std::string_view svText, std::string_view svName);

#endif  // QMLOGCACHE_TESTS_COMPONENT_LOG_RECORDER_H_
