// How many records earlier runs left in the cache files.
//
// They are counted once, before the component is at work on the files. What cannot be counted then is unknown until no
// file holds any: rows of earlier runs have smaller data ids than this run gives, go as they are settled, and come new
// into no file.
//
// Threads: one at a time.
#ifndef QMLOGCACHE_HOST_STATUS_EARLIER_ROWS_H_
#define QMLOGCACHE_HOST_STATUS_EARLIER_ROWS_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class CEarlierRows {
 public:
  // Before the component is started. Counts for budget at most.
  void Count(const std::string& strDirectory, std::chrono::milliseconds budget);
  // Looks for budget at most which files hold no data id below u64FirstOfRun any more, the rest next time. Does nothing
  // once the count is known.
  void Look(const std::string& strDirectory, uint64_t u64FirstOfRun, std::chrono::milliseconds budget);
  // The rows of all files at the start; also 0 when they could not be counted and are all gone by now.
  std::optional<uint64_t> AtStart() const { return m_optAtStart; }

 private:
  std::optional<uint64_t> m_optAtStart;
  std::optional<std::vector<std::string>> m_optLeft;  // names of files to be looked at; nothing: not yet listed
};

#endif  // QMLOGCACHE_HOST_STATUS_EARLIER_ROWS_H_
