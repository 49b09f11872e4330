#include "tools/qmcache/time_text.h"

#include <array>
#include <charconv>
#include <ctime>
#include <string_view>

namespace {

int64_t SecondsOf(char cUnit) {
  constexpr int64_t kMinute = 60;
  constexpr int64_t kHour = 60 * kMinute;
  constexpr int64_t kDay = 24 * kHour;
  switch (cUnit) {
    case 's':
      return 1;
    case 'm':
      return kMinute;
    case 'h':
      return kHour;
    case 'd':
      return kDay;
    case 'w':
      return 7 * kDay;
    default:
      return 0;
  }
}

bool ReadDuration(std::string_view svText, int64_t& i64Seconds) {
  constexpr int64_t kLongest = int64_t{1} << 32;
  if (svText.size() < 2) {
    return false;
  }
  const int64_t i64Unit = SecondsOf(svText.back());
  const std::string_view svDigits = svText.substr(0, svText.size() - 1);
  uint32_t uCount = 0;
  const auto result = std::from_chars(svDigits.data(), svDigits.data() + svDigits.size(), uCount);
  i64Seconds = i64Unit * uCount;
  return i64Unit != 0 && result.ec == std::errc() && result.ptr == svDigits.data() + svDigits.size() &&
         i64Seconds <= kLongest;
}

const char* SkipFraction(const char* pszText) {
  if (*pszText != '.') {
    return pszText;
  }
  ++pszText;
  while (*pszText >= '0' && *pszText <= '9') {
    ++pszText;
  }
  return pszText;
}

}  // namespace

std::string TimeText(int64_t i64Second) {
  const time_t tSecond = i64Second;
  tm tmUtc{};
  std::array<char, 64> acText{};
  if (gmtime_r(&tSecond, &tmUtc) == nullptr ||
      strftime(acText.data(), acText.size(), "%Y-%m-%dT%H:%M:%SZ", &tmUtc) == 0) {
    return "?";
  }
  return acText.data();
}

bool ReadSince(const std::string& strText, int64_t i64Now, int64_t& i64Second) {
  int64_t i64Seconds = 0;
  if (ReadDuration(strText, i64Seconds)) {
    i64Second = i64Now - i64Seconds;
    return true;
  }
  for (const char* pszFormat :
       {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
    tm tmRead{};
    const char* pszEnd = strptime(strText.c_str(), pszFormat, &tmRead);
    if (pszEnd == nullptr) {
      continue;
    }
    pszEnd = SkipFraction(pszEnd);
    long lOffset = 0;
    if (*pszEnd != '\0') {
      tm tmZone{};
      pszEnd = strptime(pszEnd, "%z", &tmZone);
      lOffset = tmZone.tm_gmtoff;
    }
    if (pszEnd != nullptr && *pszEnd == '\0') {
      i64Second = timegm(&tmRead) - lOffset;
      return true;
    }
  }
  return false;
}
