#include "tools/qmcache/filter.h"

#include <algorithm>
#include <limits>

#include "host/link/record_line.h"
#include "host/protocol/sender_guid.h"
#include "tools/qmcache/cache_reader.h"

namespace {

constexpr int kRunShift = 32;

std::string GuidText(const std::string& strNameOrGuid) {
  char szText[kGuidBufferSize] = {};
  FormatGuid(SenderGuid(strNameOrGuid), szText);
  return szText;
}

}  // namespace

bool Filter::TakesSender(const std::string& strSender) const {
  return vecSenders.empty() || std::any_of(vecSenders.begin(), vecSenders.end(), [&](const std::string& strWanted) {
           return strWanted == strSender || GuidText(strWanted) == strSender;
         });
}

bool Filter::TakesPriority(int64_t i64Priv) const {
  const bool bKnown = i64Priv >= 0 && i64Priv <= std::numeric_limits<int32_t>::max();
  const std::string strName = bKnown ? PriorityName(static_cast<int32_t>(i64Priv)) : "other";
  return vecPriorities.empty() || std::find(vecPriorities.begin(), vecPriorities.end(), strName) != vecPriorities.end();
}

int64_t RunOf(uint64_t u64DataId) {
  return static_cast<int64_t>(u64DataId >> kRunShift);
}

uint64_t FirstWantedId(const Filter& filter, const std::vector<CacheFileEntry>& vecFiles) {
  if (!filter.since || *filter.since <= 0) {
    return 0;
  }
  constexpr int64_t kLatest = (int64_t{1} << 31) - 1;
  const int64_t i64Since = std::min(*filter.since, kLatest);
  const auto u64Last = (static_cast<uint64_t>(i64Since) << kRunShift) | 0xFFFFFFFFU;
  int64_t i64Run = 0;
  for (const CacheFileEntry& entry : vecFiles) {
    CCacheReader reader(entry.strPath);
    int64_t i64Found = 0;
    if (entry.bRegular && reader.Open() == FileState::Sound &&
        reader.FindLast(static_cast<int64_t>(u64Last), i64Found) && i64Found > 0) {
      i64Run = std::max(i64Run, RunOf(static_cast<uint64_t>(i64Found)));
    }
  }
  // No run had begun by then: all that began later.
  return static_cast<uint64_t>(i64Run != 0 ? i64Run : i64Since) << kRunShift;
}
