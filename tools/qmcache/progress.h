// A bar on standard error while something takes long, when that is a terminal.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_PROGRESS_H_
#define QMLOGCACHE_TOOLS_QMCACHE_PROGRESS_H_

#include <chrono>
#include <cstdint>
#include <string>

// One at a time, on one thread.
class CProgress {
 public:
  // u64Total: bytes of all that is to be done. bShow false: nothing is ever drawn.
  CProgress(uint64_t u64Total, bool bShow);
  ~CProgress();
  CProgress(const CProgress&) = delete;
  CProgress& operator=(const CProgress&) = delete;

  // A part begins: its name, and how many bytes it counts for.
  void Begin(const std::string& strName, uint64_t u64Bytes);
  // So many bytes more of the part have been done; never more than the part has counts.
  void Advance(uint64_t u64Bytes);

  // Of the bar that there is, if any, from code that has none at hand: so many bytes more, or none: the work goes on. The
  // seconds beside the bar tell so where bytes cannot be counted.
  static void Step(uint64_t u64Bytes);
  // Clears the line of a bar that is drawn, so that other text can stand there.
  static void TakeAway();

 private:
  using Clock = std::chrono::steady_clock;
  void Draw();

  const uint64_t m_u64Total;
  const bool m_bShow;
  std::string m_strName;
  uint64_t m_u64Before = 0;  // bytes of the parts that are done
  uint64_t m_u64Part = 0;
  uint64_t m_u64Done = 0;  // of the part
  const Clock::time_point m_begun = Clock::now();
  Clock::time_point m_next;
};

#endif  // QMLOGCACHE_TOOLS_QMCACHE_PROGRESS_H_
