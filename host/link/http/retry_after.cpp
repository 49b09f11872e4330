#include "host/link/http/retry_after.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdint>

namespace {

std::chrono::seconds Bounded(int64_t i64Seconds) {
  return std::chrono::seconds(std::clamp<int64_t>(i64Seconds, 0, kLongestRetryAfter.count()));
}

}  // namespace

std::optional<std::chrono::seconds> ParseRetryAfter(const std::string& strValue, time_t tNow) {
  if (strValue.empty()) {
    return std::nullopt;
  }
  if (std::all_of(strValue.begin(), strValue.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    int64_t i64Seconds = 0;
    for (const char c : strValue) {
      i64Seconds = std::min<int64_t>(i64Seconds * 10 + (c - '0'), kLongestRetryAfter.count());
    }
    return Bounded(i64Seconds);
  }
  // A date names its month. Without one, what libcurl would make a date of is some other number.
  if (std::none_of(strValue.begin(), strValue.end(),
                   [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); })) {
    return std::nullopt;
  }
  const time_t tDate = curl_getdate(strValue.c_str(), nullptr);
  if (tDate == -1) {
    return std::nullopt;
  }
  return Bounded(static_cast<int64_t>(tDate) - static_cast<int64_t>(tNow));
}
