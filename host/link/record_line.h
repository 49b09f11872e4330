// One record as one line of JSON, the form in which files of records are kept.
//
// Fields, in this order: dataid (lower-case hexadecimal), priority ("low", "normal", "high", "real", "other"), public
// (true or false), kind ("edr", "epp", "tag", "other"), priv, msgtype (the numbers behind them), guid, product, combo,
// message, time_received (RFC 3339, UTC, microseconds). A guid, product, combo or message that is not valid UTF-8
// stands under its name with "_base64" appended, base64 by RFC 4648.
#ifndef QMLOGCACHE_HOST_LINK_RECORD_LINE_H_
#define QMLOGCACHE_HOST_LINK_RECORD_LINE_H_

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "host/link/json_text.h"
#include "host/link/link_driver.h"

// The words for the numbers of a tagged text, "other" for those that have none. Static.
const char* PriorityName(int32_t iPriv);
const char* KindName(int32_t iMsgType);

// Not for several threads at a time.
class CRecordLine {
 public:
  // Appends the record's line with its line break. Throws std::bad_alloc; strOut then holds a part of the line.
  void Append(std::string& strOut, const LinkRecord& record);

 private:
  class CShortText;

  // The field with a comma before it.
  void PutField(CShortText& text, std::string_view svName, std::string_view svText);
  void PutTime(CShortText& text, int64_t i64Us);

  CJsonText m_jsonText;
  // The last second written, as text: records of one second share it.
  int64_t m_i64Second = std::numeric_limits<int64_t>::min();
  std::array<char, 64> m_acSecond{};
  size_t m_uSecondSize = 0;
};

#endif  // QMLOGCACHE_HOST_LINK_RECORD_LINE_H_
