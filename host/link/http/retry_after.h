// The header Retry-After: a number of seconds or a date (RFC 9110, 10.2.3).
#ifndef QMLOGCACHE_HOST_LINK_HTTP_RETRY_AFTER_H_
#define QMLOGCACHE_HOST_LINK_HTTP_RETRY_AFTER_H_

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

// A server may ask for no more: a slip of its clock must not silence an agent.
inline constexpr std::chrono::seconds kLongestRetryAfter{3600};

// From 0 to kLongestRetryAfter; nothing when the value is neither form. tNow: the wall clock.
std::optional<std::chrono::seconds> ParseRetryAfter(const std::string& strValue, time_t tNow);

#endif  // QMLOGCACHE_HOST_LINK_HTTP_RETRY_AFTER_H_
