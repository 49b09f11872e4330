// How many rows cache files hold.
//
// The files belong to the component, which is at work on them, so a count must never be in its way: it is a read-only
// connection that waits for nobody, makes no checkpoint, and gives up after kLongestCountMs. In a write-ahead log a
// reader holds up no writer; a checkpoint leaves out what a reader still needs and brings it in the next time.
//
// A count reads the whole file, so files above kLargestCounted are not counted: their rows stay unknown. A file is
// counted when it has changed, and at most once in kCountPauseSeconds.
//
// Only SQLite may open these files in this process: the first close of a file by anybody else would take away the locks
// that SQLite has on it.
//
// Threads: one at a time.
#ifndef QMLOGCACHE_HOST_STATUS_CACHE_ROWS_H_
#define QMLOGCACHE_HOST_STATUS_CACHE_ROWS_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "host/status/cache_directory.h"

inline constexpr uint64_t kLargestCounted = uint64_t{16} << 20;
inline constexpr int kLongestCountMs = 20;
inline constexpr int kCountPauseSeconds = 10;

// Nothing when the file cannot be counted: too large with its write-ahead log, not there, not a database, busy, or not in
// time; or when a part of the path, or a file beside it that belongs to it, is a link or no file.
std::optional<uint64_t> CountCacheRows(const std::string& strFile);
// Whether it holds rows of smaller data ids; that takes no count, and so the file may be of any size. A file that is not
// there, or is empty, holds none. Nothing when it cannot be told, for the reasons above.
std::optional<bool> HasRowsBefore(const std::string& strFile, uint64_t u64DataId);

// Without links and with a slash at its end, as the two above want it. As it was given when it cannot be resolved: then
// nothing is counted there.
std::string ResolvedDirectory(const std::string& strDirectory);

class CCacheRows {
 public:
  using Clock = std::chrono::steady_clock;

  // strDirectory: may lead through links; it ends in a slash.
  // Sets optRows of the files, from earlier counts or counts made now. Counts for budget at most, the rest next time.
  void Fill(const std::string& strDirectory, CacheContents& contents, Clock::time_point now,
            std::chrono::milliseconds budget);

 private:
  struct Counted {
    std::optional<uint64_t> optRows;
    int64_t i64ChangedNs = -1;
    Clock::time_point when{};
  };

  std::map<std::string, Counted> m_mapCounted;  // by the file's name
};

#endif  // QMLOGCACHE_HOST_STATUS_CACHE_ROWS_H_
