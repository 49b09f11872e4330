// Takes the place of the logging library in a test executable: LogInit, LogPrint, LogPrintStr and LogUninit are defined
// here and keep every line in memory, formatted, with its channel and level.
//
// All functions may be called from any thread. Lines for a null handle are dropped, as the real library does.
#ifndef QMLOGCACHE_TESTS_SUPPORT_LOG_CAPTURE_H_
#define QMLOGCACHE_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

inline constexpr char kMainChannel[] = "qmlogcache";
inline constexpr char kErrorChannel[] = "qmlogcacheerror";

struct LogLine {
  std::string strChannel;
  int iLevel = 0;
  std::string strText;
};

class CLogCapture {
 public:
  // Forgets lines, hook and counts. Handles given out before stay valid.
  static void Reset();
  static std::vector<LogLine> Lines();
  // How often that very line was written.
  static size_t Count(const std::string& strChannel, int iLevel, const std::string& strText);
  // Called with each line after it was kept, on the thread that writes it and without a lock. Empty: none.
  static void SetHook(std::function<void(const LogLine&)> hook);
  // LogInit minus LogUninit of that channel since the last Reset.
  static int OpenCount(const std::string& strChannel);
  // Waits for a line that another thread is about to write. False when it has not come after a long time.
  [[nodiscard]] static bool WaitFor(const std::string& strChannel, int iLevel, const std::string& strText,
                                    size_t uTimes = 1);
};

// Each tells on failure what was written instead.
::testing::AssertionResult LoggedOnce(const std::string& strChannel, int iLevel, const std::string& strText);
::testing::AssertionResult NotLogged(const std::string& strText);
// Exactly these lines, in this order, since the last Reset.
::testing::AssertionResult LoggedExactly(const std::vector<LogLine>& vecExpected);

#endif  // QMLOGCACHE_TESTS_SUPPORT_LOG_CAPTURE_H_
