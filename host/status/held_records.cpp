#include "host/status/held_records.h"

#include <algorithm>

HeldRecords CountHeldRecords(const HeldInput& input, const CHistory& history, StatusTime now) {
  HeldRecords held;
  held.bAtMost = !input.bKeepsAll || input.bHasDropped;
  held.bAbout = input.bHasNotAnswered;
  uint64_t u64SettledOfRun = 0;
  for (size_t i = 0; i < held.aOfRun.size(); ++i) {
    const uint64_t u64Settled = input.link.aSettledOfRun[i];
    u64SettledOfRun += u64Settled;
    // The counts are not of the very same moment: a record may be settled before its acceptance has been read.
    held.aOfRun[i] = input.aAccepted[i] > u64Settled ? input.aAccepted[i] - u64Settled : 0;
    held.u64OfRun += held.aOfRun[i];
    if (held.aOfRun[i] == 0) {
      continue;
    }
    // Of the first u64Settled + 1 records that were accepted, one at least is still here.
    if (const std::optional<StatusTime> optWhen = history.WhenAccepted(i, u64Settled)) {
      const auto age = std::max(std::chrono::duration_cast<std::chrono::seconds>(now - *optWhen), {});
      held.optOldest = std::max(held.optOldest.value_or(age), age);
    }
  }
  if (input.optRowsAtStart) {
    const uint64_t u64Settled = input.link.u64Delivered + input.link.u64Rejected;
    const uint64_t u64SettledEarlier = u64Settled > u64SettledOfRun ? u64Settled - u64SettledOfRun : 0;
    held.optEarlier = *input.optRowsAtStart > u64SettledEarlier ? *input.optRowsAtStart - u64SettledEarlier : 0;
  }
  return held;
}
