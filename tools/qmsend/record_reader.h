// Cuts a stream of bytes into records. Memory is bounded by the longest record allowed: of a longer one only the first
// bytes are kept, and the stream goes on behind it.
#ifndef QMLOGCACHE_TOOLS_QMSEND_RECORD_READER_H_
#define QMLOGCACHE_TOOLS_QMSEND_RECORD_READER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

enum class RecordMode { Lines, Zeros, WholeFile };

struct Record {
  std::string_view svBytes;  // without its delimiter; of a record that is too long the first bytes
  uint64_t u64Number = 0;    // in its stream, from 1
  uint64_t u64Length = 0;    // of the whole record
  bool bTooLong = false;
};

class CRecordReader {
 public:
  enum class Step { Record, NeedInput, End };
  enum class Input { Some, None, Ended, Failed };

  CRecordReader(RecordMode mode, size_t uMaxRecord);

  // The next record of what was read. Its bytes stay valid until the next ReadFrom, ReadOn or Restart.
  Step Next(Record& record);
  // Reads once. None: nothing there now (a non-blocking descriptor). Failed: errno says why, the stream counts as
  // ended.
  Input ReadFrom(int iDescriptor);
  // The same for a stream that may go on behind its end: neither Ended nor Failed ends it.
  Input ReadOn(int iDescriptor);
  // Ends it.
  void End() { m_bEnded = true; }
  // A new stream, of which records may be so long; they are numbered from 1 again.
  void Restart(size_t uMaxRecord);
  void Restart() { Restart(m_uMaxRecord); }
  uint64_t LastNumber() const { return m_u64Number; }

 private:
  size_t Found(size_t uEnd, Record& record);
  void Reserve();

  const RecordMode m_mode;
  size_t m_uMaxRecord;
  std::unique_ptr<char[]> m_pBuffer;
  size_t m_uCapacity = 0;
  size_t m_uBegin = 0;    // of the record being looked for
  size_t m_uScanned = 0;  // no delimiter before this
  size_t m_uEnd = 0;
  uint64_t m_u64Dropped = 0;  // bytes of the current, too long record that are no longer in the buffer
  uint64_t m_u64Number = 0;
  bool m_bEnded = false;
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_RECORD_READER_H_
