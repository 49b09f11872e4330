// Points in time as text. All in seconds since the epoch, texts in UTC.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_TIME_TEXT_H_
#define QMLOGCACHE_TOOLS_QMCACHE_TIME_TEXT_H_

#include <cstdint>
#include <string>

// "2026-01-31T12:00:00Z"
[[nodiscard]] std::string TimeText(int64_t i64Second);

// Reads "90s", "15m", "2h", "3d", "1w" (so long before i64Now), or "2026-01-31", "2026-01-31T12:00",
// "2026-01-31T12:00:00" (a space for the T, a fraction of the second, and Z or +02:00 at the end are taken as well;
// without a zone it is UTC). False for anything else.
[[nodiscard]] bool ReadSince(const std::string& strText, int64_t i64Now, int64_t& i64Second);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_TIME_TEXT_H_
