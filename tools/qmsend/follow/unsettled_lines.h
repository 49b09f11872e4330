// The lines behind the position, in the order of the log: which of them are settled, and how far everything is.
//
// A line is settled when it was accepted, or when it can never be sent. The position stays before the first line that is
// not.
#ifndef QMLOGCACHE_TOOLS_QMSEND_FOLLOW_UNSETTLED_LINES_H_
#define QMLOGCACHE_TOOLS_QMSEND_FOLLOW_UNSETTLED_LINES_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "tools/qmsend/follow/log_file.h"

// A place between two lines.
struct LogPlace {
  std::shared_ptr<CLogFile> pFile;
  uint64_t u64Offset = 0;
  std::string strBefore;  // the bytes right before it, some of them
};

class CUnsettledLines {
 public:
  // A line that is on its way and ends there; returns its number.
  uint64_t Add(LogPlace end);
  // A line that needs no sending. Any number of them take the room of one.
  void Skip(LogPlace end);
  void Settle(uint64_t u64Number);

  // Up to where everything is settled; no file before anything was.
  const LogPlace& Mark() const { return m_mark; }
  // Lines that were sent and lie behind the noted mark: as many may come twice after a crash.
  size_t BehindNote() const { return m_uSettledSinceNote + m_queLines.size(); }
  // Of these, lines before the mark.
  size_t SettledSinceNote() const { return m_uSettledSinceNote; }
  bool HasMoved() const { return m_bMoved; }
  // The mark has been written down.
  void Noted();

 private:
  struct Line {
    LogPlace end;
    bool bSettled;
  };

  std::deque<Line> m_queLines;
  uint64_t m_u64First = 0;  // number of the first of them
  LogPlace m_mark;
  size_t m_uSettledSinceNote = 0;
  bool m_bMoved = false;
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_FOLLOW_UNSETTLED_LINES_H_
