// The status in words. Each clause is there only when what it says is known.
#ifndef QMLOGCACHE_HOST_STATUS_STATUS_WORDS_H_
#define QMLOGCACHE_HOST_STATUS_STATUS_WORDS_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "host/status/status_snapshot.h"

// "Link down for 3 min, 1,204 records held, oldest 3 min, 38 MiB of 2 GiB."
std::string StatusSummary(const StatusSnapshot& snapshot);
// Sentences that say more: why the link is down, what comes and goes, what needs looking at.
std::vector<std::string> StatusDetails(const StatusSnapshot& snapshot);

std::string CountWords(uint64_t u64Count);               // "1,204"
std::string ByteWords(uint64_t u64Bytes);                // "38 MiB"
std::string DurationWords(std::chrono::seconds length);  // "3 min", "2 h 5 min"

#endif  // QMLOGCACHE_HOST_STATUS_STATUS_WORDS_H_
