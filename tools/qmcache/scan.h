// Walks over the records of a cache directory.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_SCAN_H_
#define QMLOGCACHE_TOOLS_QMCACHE_SCAN_H_

#include <cstdint>
#include <functional>

#include "tools/qmcache/cache_directory.h"
#include "tools/qmcache/cache_reader.h"
#include "tools/qmcache/cache_record.h"
#include "tools/qmcache/options.h"
#include "tools/qmcache/progress.h"

// What went wrong on the way, of which the exit status is made.
struct Troubles {
  bool bDamage = false;
  bool bFailed = false;

  void Add(FileState state);
  // bNothing: nothing matched.
  [[nodiscard]] int ExitCode(bool bNothing = false) const;
};

// Calls fnRow with every row that the filter takes. What cannot be read or decoded is complained of and noted. Throws
// what the reader and fnRow throw.
void ForEachRecord(const Options& options, bool bProgress, Troubles& troubles,
                   const std::function<void(const CacheFileEntry&, const CacheRecord&)>& fnRow);

// Bytes of all files, for the progress bar.
[[nodiscard]] uint64_t BytesOf(const CacheDirectory& directory);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_SCAN_H_
