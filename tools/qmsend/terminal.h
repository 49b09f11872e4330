// Standard error: lines, and a progress line that stays at the bottom when it is a terminal.
#ifndef QMLOGCACHE_TOOLS_QMSEND_TERMINAL_H_
#define QMLOGCACHE_TOOLS_QMSEND_TERMINAL_H_

#include <chrono>
#include <cstdint>
#include <string>

struct SendCounts {
  uint64_t u64Sent = 0;  // records taken from the input and handed to the connection
  uint64_t u64Accepted = 0;
  uint64_t u64Refused = 0;
};

class CTerminal {
 public:
  using Clock = std::chrono::steady_clock;

  // bProgress: wanted at all; without a terminal there is none.
  explicit CTerminal(bool bProgress);
  ~CTerminal();
  CTerminal(const CTerminal&) = delete;
  CTerminal& operator=(const CTerminal&) = delete;

  bool HasProgress() const { return m_bProgress; }
  // "qmsend: " and the text.
  void Line(const std::string& strText);
  // Redraws a few times a second at most.
  void Progress(const SendCounts& counts, Clock::time_point now);
  void ClearProgress();

 private:
  const bool m_bProgress;
  Clock::time_point m_next{};
  Clock::time_point m_lastTime;
  uint64_t m_u64LastAccepted = 0;
  bool m_bDrawn = false;
};

// "2.50 seconds, 4000 records/s".
std::string RateText(uint64_t u64Records, std::chrono::steady_clock::duration time);

#endif  // QMLOGCACHE_TOOLS_QMSEND_TERMINAL_H_
