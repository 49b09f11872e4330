// All that the status tells, at one moment. What is not known is left out.
#ifndef QMLOGCACHE_HOST_STATUS_STATUS_SNAPSHOT_H_
#define QMLOGCACHE_HOST_STATUS_STATUS_SNAPSHOT_H_

#include <chrono>
#include <optional>
#include <string>

#include "host/link/server_link.h"
#include "host/router/intake_counters.h"
#include "host/status/cache_directory.h"
#include "host/status/component_statistics.h"
#include "host/status/held_records.h"
#include "host/status/history.h"

struct StatusSnapshot {
  std::string strVersion;
  std::chrono::system_clock::time_point time{};
  std::chrono::system_clock::time_point started{};
  IntakeCounts intake;
  ServerLinkCounts link;
  std::chrono::seconds linkStateAge{};
  std::chrono::system_clock::time_point linkChanged{};  // the same as a time, which stays as it is
  std::string strLink;                                  // where records go
  std::string strDownReason;                            // empty while the link is up
  std::optional<HeldRecords> optHeld;
  std::optional<RecordRates> optRates;  // of the last minute, or since the start
  CacheSettings cacheSettings;
  CacheContents cache;
  std::optional<ComponentStatistics> optComponent;
};

#endif  // QMLOGCACHE_HOST_STATUS_STATUS_SNAPSHOT_H_
