// How many records are held and since when, as far as the host can know it from outside the component.
//
// Of this run: what was accepted, less what the destination has settled. Of earlier runs: the rows that the cache files
// held at the start, if they could be counted, less what was settled of them. A component that drops records by itself
// makes the count too high, one that takes a record without answering in time makes it too low; both are then said.
#ifndef QMLOGCACHE_HOST_STATUS_HELD_RECORDS_H_
#define QMLOGCACHE_HOST_STATUS_HELD_RECORDS_H_

#include <chrono>
#include <cstdint>
#include <optional>

#include "host/link/server_link.h"
#include "host/status/history.h"

struct HeldRecords {
  PriorityCounts aOfRun{};
  uint64_t u64OfRun = 0;               // their sum
  std::optional<uint64_t> optEarlier;  // of earlier runs; nothing when it is not known
  bool bAtMost = false;                // some of them may have been dropped
  bool bAbout = false;                 // some that were refused may be held as well
  // Age of the oldest record of this run: it is no younger, and older if it is stuck behind newer ones. Nothing when
  // none is held, or the history does not tell.
  std::optional<std::chrono::seconds> optOldest;
};

struct HeldInput {
  PriorityCounts aAccepted{};
  ServerLinkCounts link;
  std::optional<uint64_t> optRowsAtStart;
  bool bKeepsAll = true;         // datacoverflag is off
  bool bHasDropped = false;      // the component tells of records that the router refused to carry
  bool bHasNotAnswered = false;  // records were answered kHostNoReply, and may have been stored all the same
};

HeldRecords CountHeldRecords(const HeldInput& input, const CHistory& history, StatusTime now);

#endif  // QMLOGCACHE_HOST_STATUS_HELD_RECORDS_H_
