// The status as JSON: /api/status and /api/history. docs/status.md describes the fields.
//
// What is not known is null. Texts that are not UTF-8 have their bad bytes replaced.
#ifndef QMLOGCACHE_HOST_STATUS_STATUS_JSON_H_
#define QMLOGCACHE_HOST_STATUS_STATUS_JSON_H_

#include <deque>
#include <string>

#include "host/status/status_snapshot.h"

std::string StatusJson(const StatusSnapshot& snapshot);

// Columns of equal length, the oldest sample first. now: the moment that "time" of the answer is.
std::string HistoryJson(const std::deque<HistorySample>& dequeSamples, StatusTime now,
                        std::chrono::system_clock::time_point time, std::chrono::seconds step,
                        std::chrono::seconds span);

#endif  // QMLOGCACHE_HOST_STATUS_STATUS_JSON_H_
