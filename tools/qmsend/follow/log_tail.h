// The lines of a log as they are appended, over its rotations and truncations.
//
// Polled, with no notification of the kernel: that works on every file system and under every kind of rotation, and
// costs a few system calls a second while nothing comes.
#ifndef QMLOGCACHE_TOOLS_QMSEND_FOLLOW_LOG_TAIL_H_
#define QMLOGCACHE_TOOLS_QMSEND_FOLLOW_LOG_TAIL_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "tools/qmsend/follow/log_file.h"
#include "tools/qmsend/follow/rotated_files.h"
#include "tools/qmsend/follow/unsettled_lines.h"
#include "tools/qmsend/record_reader.h"

class CLogTail {
 public:
  using Tell = std::function<void(const std::string&)>;

  // strLog: absolute. uMaxRecord: of the longest line. fnTell gets a line for people about everything out of the
  // ordinary.
  CLogTail(std::string strLog, RecordMode mode, size_t uMaxRecord, Tell fnTell);

  // Either goes first: at the beginning of the log, or behind the position; noted: when it was written. A position of no
  // file is before whatever was written since. What is open by then is read even if it is
  // renamed or removed; what is not is looked for by Read.
  void StartAtBeginning();
  void StartAt(const FollowPosition& position, const timespec& noted);

  // The next line, and where it ends. Its bytes stay valid until the next call of Read. False: Read first.
  [[nodiscard]] bool Next(Record& line, LogPlace& end);
  // Reads on. False when there is nothing now: try again a moment later.
  [[nodiscard]] bool Read();

  // From the next line on, which is read again when it was begun.
  void LimitRecords(size_t uMaxRecord);

  // The beginning of what is read next; no file when there is none.
  LogPlace Here() const { return {m_pFile, m_u64Line, m_strBefore}; }

 private:
  struct Start {
    FollowPosition position;
    timespec noted;
  };

  void Open(std::shared_ptr<CLogFile> pFile, uint64_t u64Offset, std::string strBefore);
  bool OpenLog();
  bool Resume();
  bool ReadFile();
  bool LeaveWhenOver();
  void GoToSuccessor();
  void TakeSuccessor(const Successor& successor);
  void AfterTruncation();
  void TellWaitsFor(const std::string& strError);
  void TellOnce(const std::string& strText);

  const std::string m_strLog;
  const char m_cDelimiter;
  CRecordReader m_reader;
  size_t m_uMaxRecord;
  const Tell m_fnTell;
  std::optional<Start> m_start;       // a position that is still looked for
  std::shared_ptr<CLogFile> m_pFile;  // null while there is none
  uint64_t m_u64Line = 0;             // where the next line begins
  uint64_t m_u64Read = 0;             // up to where the file was read
  std::string m_strBefore;            // bytes before m_u64Line
  bool m_bLeaving = false;            // no more comes from this file
  std::string m_strTold;              // the last complaint, which is not repeated
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_FOLLOW_LOG_TAIL_H_
