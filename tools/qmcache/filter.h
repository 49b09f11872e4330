// Which records are wanted.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_FILTER_H_
#define QMLOGCACHE_TOOLS_QMCACHE_FILTER_H_

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/qmcache/cache_directory.h"
#include "tools/qmcache/cache_record.h"

struct Filter {
  std::vector<std::string> vecSenders;     // empty: all; a GUID, or a name as qmsend takes it
  std::vector<std::string> vecPriorities;  // empty: all; "low", "normal", "high", "real", "other"
  std::optional<int64_t> since;            // seconds since the epoch

  bool IsEmpty() const { return vecSenders.empty() && vecPriorities.empty() && !since; }
  // strSender: a file's name without extension, or a record's sender.
  [[nodiscard]] bool TakesSender(const std::string& strSender) const;
  [[nodiscard]] bool TakesPriority(int64_t i64Priv) const;
};

// The second in which the component that took a record was started: an id's upper half.
[[nodiscard]] int64_t RunOf(uint64_t u64DataId);

// The smallest data id that is wanted. An id tells when the component was started that took the record, not when it was
// taken: wanted are all records of the run that was under way at filter.since, as far as the files tell, and of later
// ones. 0 without filter.since.
[[nodiscard]] uint64_t FirstWantedId(const Filter& filter, const std::vector<CacheFileEntry>& vecFiles);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_FILTER_H_
