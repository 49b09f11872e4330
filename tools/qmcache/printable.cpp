#include "tools/qmcache/printable.h"

#include <array>

#include "platform/log_escape.h"

size_t DirectionMarkLength(std::string_view svText) {
  constexpr std::array<std::string_view, 18> kMarks = {"\u2028", "\u2029", "\u061C", "\u200B", "\u200C", "\u200D",
                                                       "\u200E", "\u200F", "\u202A", "\u202B", "\u202C", "\u202D",
                                                       "\u202E", "\u2066", "\u2067", "\u2068", "\u2069", "\uFEFF"};
  for (const std::string_view svMark : kMarks) {
    if (svText.starts_with(svMark)) {
      return svMark.size();
    }
  }
  return 0;
}

std::string Printable(std::string_view svText) {
  std::string strEscaped;
  AppendEscapedLogText(svText, &strEscaped);
  std::string strText;
  for (size_t uAt = 0; uAt < strEscaped.size();) {
    const size_t uMark = DirectionMarkLength(std::string_view(strEscaped).substr(uAt));
    if (uMark == 0) {
      strText += strEscaped[uAt++];
      continue;
    }
    for (const size_t uEnd = uAt + uMark; uAt < uEnd; ++uAt) {
      constexpr char kHexDigits[] = "0123456789abcdef";
      const auto cByte = static_cast<unsigned char>(strEscaped[uAt]);
      strText.append("\\x").append(1, kHexDigits[cByte >> 4]).append(1, kHexDigits[cByte & 0xF]);
    }
  }
  return strText;
}
