// Names every record that was not accepted: the first hundred one by one with their first bytes, all others as ranges.
#ifndef QMLOGCACHE_TOOLS_QMSEND_FAILURE_REPORT_H_
#define QMLOGCACHE_TOOLS_QMSEND_FAILURE_REPORT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "client/core/send_engine.h"

class CFailureReport {
 public:
  enum class Cause { Refused, TooLong, ZeroByte, NoRecord, NoAnswer, NotSent };

  // fnLine prints a line; fnName names a source.
  CFailureReport(std::function<void(const std::string&)> fnLine, std::function<std::string(size_t)> fnName);

  // uStatus: of the last answer, 0 when there was none. bMore: the record goes on behind svHead.
  void Add(size_t uSource, uint64_t u64Number, Cause cause, uint32_t uStatus, std::string_view svHead, bool bMore);
  // Prints the ranges that are left.
  void Finish();

  uint64_t Count(Cause cause) const { return m_aCounts[static_cast<size_t>(cause)]; }
  uint64_t Total() const;

 private:
  struct Range {
    uint64_t u64Last;
    Cause cause;
    uint32_t uStatus;
  };
  using Ranges = std::map<std::pair<size_t, uint64_t>, Range>;

  void AddToRanges(size_t uSource, uint64_t u64Number, Cause cause, uint32_t uStatus);
  void PrintRanges(size_t uCount);

  const std::function<void(const std::string&)> m_fnLine;
  const std::function<std::string(size_t)> m_fnName;
  Ranges m_mapRanges;  // by source and first record
  uint64_t m_aCounts[6] = {};
  size_t m_uNamed = 0;
};

CFailureReport::Cause CauseOf(SendFailure failure);

// "not sent, longer than the host takes".
std::string CauseText(CFailureReport::Cause cause, uint32_t uStatus);

#endif  // QMLOGCACHE_TOOLS_QMSEND_FAILURE_REPORT_H_
