// A line of the error channel, "qmlogcacheerror", and the record that it holds whole.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_REJECTED_LINE_H_
#define QMLOGCACHE_TOOLS_QMCACHE_REJECTED_LINE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/qmcache/cache_record.h"

struct RejectedRecord {
  CacheRecord record;
  std::string strResult;  // the code with which it was rejected, "0x" and hexadecimal
  std::string strTime;    // as it stands in the line
  int64_t i64Second = 0;  // the same, seconds since the epoch
};

enum class RejectedLine {
  Record,
  Other,   // a line that holds no record and does not say that it does
  Damaged  // a record's line that was cut, or is not as the component writes it
};

// svLine: without its line break.
[[nodiscard]] RejectedLine ParseRejectedLine(std::string_view svLine, RejectedRecord& out);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_REJECTED_LINE_H_
