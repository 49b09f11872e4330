// What the cache component tells about itself: the statistics line that it writes to its log at level 6 every ten
// minutes while it is connected.
//
// The component's binary interfaces have no question for these figures, so the line is read as it is written, through
// the platform library's QmLogObserve: no file is looked at, no rotation or dropped line comes between, and a line that
// level 6 does not let through is simply not there.
#ifndef QMLOGCACHE_HOST_STATUS_COMPONENT_STATISTICS_H_
#define QMLOGCACHE_HOST_STATUS_COMPONENT_STATISTICS_H_

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>

struct ComponentStatistics {
  std::chrono::system_clock::time_point time{};
  uint64_t u64MemoryRecords = 0;          // in memory: queued, or sent and not settled
  std::array<uint64_t, 4> aQueued{};      // low, normal, high, real
  bool bSingleSend = false;               // one record at a time, since sends fail
  uint64_t u64FailuresInRow = 0;          // sends that failed since the last one that did not
  uint64_t u64StoreFailures = 0;          // records that could not be stored, and were refused
  uint64_t u64SendFailures = 0;           // records that the router refused, and that were dropped
  std::array<uint64_t, 2> aTimedOut{};    // results "time-out": first send, later ones
  std::array<uint64_t, 2> aTurnedBack{};  // results of the cloud side's trouble: likewise
};

// Reads a line as it was logged; nothing when it is another one. The time is left alone.
std::optional<ComponentStatistics> ReadComponentStatistics(std::string_view svLine);

// Listens from its construction to its end. One at a time in a process.
class CComponentStatistics {
 public:
  CComponentStatistics();
  ~CComponentStatistics();
  CComponentStatistics(const CComponentStatistics&) = delete;
  CComponentStatistics& operator=(const CComponentStatistics&) = delete;

  // The newest; nothing before the first line. Any thread.
  std::optional<ComponentStatistics> Latest() const;

 private:
  static void Observe(const char* pText, unsigned long uLength, void* pUser);

  mutable std::mutex m_mutex;  // guards m_optLatest
  std::optional<ComponentStatistics> m_optLatest;
};

#endif  // QMLOGCACHE_HOST_STATUS_COMPONENT_STATISTICS_H_
