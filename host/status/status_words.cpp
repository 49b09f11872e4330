#include "host/status/status_words.h"

#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <numeric>

namespace {

using std::chrono::seconds;

// A rate below this is no movement.
constexpr double kLeastRate = 0.05;
// Backlogs that are gone in a moment need no forecast.
constexpr double kLeastForecast = 10;
constexpr double kLongestForecast = 7 * 86400;
constexpr double kNearlyFull = 0.9;
// Samples are seconds apart.
constexpr seconds kNearlyAMinute{55};

std::string RecordWords(uint64_t u64Count) {
  return u64Count == 1 ? "1 record" : CountWords(u64Count) + " records";
}

std::string RateWords(double dRate) {
  std::array<char, 32> acText{};
  std::snprintf(acText.data(), acText.size(), "%.1f", dRate);
  return dRate < 10 ? std::string(acText.data()) : CountWords(static_cast<uint64_t>(std::llround(dRate)));
}

bool NothingYet(const StatusSnapshot& snapshot) {
  const PriorityCounts& aAccepted = snapshot.intake.aAccepted;
  return snapshot.link.u64Received == 0 && std::accumulate(aAccepted.begin(), aAccepted.end(), uint64_t{0}) == 0;
}

std::string HeldClause(const StatusSnapshot& snapshot) {
  const HeldRecords& held = *snapshot.optHeld;
  const std::string strMost = held.bAbout ? "about " : held.bAtMost ? "at most " : "";
  if (!held.optEarlier) {
    return strMost + RecordWords(held.u64OfRun) + " of this run held, beside what earlier runs may have left";
  }
  const uint64_t u64Held = held.u64OfRun + *held.optEarlier;
  if (u64Held == 0) {
    return NothingYet(snapshot) ? "no records yet" : "no records held";
  }
  return strMost + RecordWords(u64Held) + " held";
}

std::string RateSentence(const StatusSnapshot& snapshot) {
  const RecordRates& rates = *snapshot.optRates;
  const std::string strAccepted = rates.dAccepted < kLeastRate ? "no" : RateWords(rates.dAccepted);
  const std::string strDelivered = rates.dDelivered < kLeastRate ? "none" : RateWords(rates.dDelivered) + " a second";
  const std::string strSpan = rates.span < kNearlyAMinute ? DurationWords(rates.span) : "minute";
  return "In the last " + strSpan + " " + strAccepted +
         (rates.dAccepted < kLeastRate ? " records" : " records a second") + " came in and " + strDelivered +
         " were delivered.";
}

std::string ForecastSentence(const StatusSnapshot& snapshot) {
  if (!snapshot.link.bUp || !snapshot.optHeld || !snapshot.optHeld->optEarlier) {
    return {};
  }
  const double dGain = snapshot.optRates->dDelivered - snapshot.optRates->dAccepted;
  const auto dHeld = static_cast<double>(snapshot.optHeld->u64OfRun + *snapshot.optHeld->optEarlier);
  if (dGain < kLeastRate || dHeld / dGain < kLeastForecast || dHeld / dGain > kLongestForecast) {
    return {};
  }
  return "At this rate nothing waits any more in " +
         DurationWords(seconds(static_cast<int64_t>(std::ceil(dHeld / dGain)))) + ".";
}

std::string RefusedSentence(const IntakeCounts& intake) {
  uint64_t u64All = intake.u64RefusedOtherwise;
  std::pair<uint32_t, uint64_t> most{};
  for (const auto& refusal : intake.vecRefused) {
    u64All += refusal.second;
    most = refusal.second > most.second ? refusal : most;
  }
  if (u64All == 0) {
    return {};
  }
  std::array<char, 48> acCode{};
  std::snprintf(acCode.data(), acCode.size(), "status 0x%08" PRIX32, most.first);
  return RecordWords(u64All) + (u64All == 1 ? " was" : " were") + " refused since the start" +
         (intake.vecRefused.size() == 1 ? ", with " : ", most with ") + acCode.data() + ".";
}

}  // namespace

std::string CountWords(uint64_t u64Count) {
  std::string strText = std::to_string(u64Count);
  for (size_t uPlace = strText.size(); uPlace > 3;) {
    uPlace -= 3;
    strText.insert(uPlace, ",");
  }
  return strText;
}

std::string ByteWords(uint64_t u64Bytes) {
  constexpr std::array<const char*, 5> kUnits = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  auto dValue = static_cast<double>(u64Bytes);
  size_t uUnit = 0;
  while (dValue >= 1024 && uUnit + 1 < kUnits.size()) {
    dValue /= 1024;
    ++uUnit;
  }
  const bool bTenth = uUnit > 0 && dValue < 10 && std::fabs(dValue - std::round(dValue)) >= 0.05;
  std::array<char, 32> acText{};
  std::snprintf(acText.data(), acText.size(), bTenth ? "%.1f %s" : "%.0f %s", dValue, kUnits[uUnit]);
  return u64Bytes == 1 ? "1 byte" : std::string(acText.data());
}

std::string DurationWords(seconds length) {
  const int64_t i64Seconds = length.count();
  const auto fnTwo = [](int64_t i64First, const char* pszFirst, int64_t i64Second, const char* pszSecond) {
    const std::string strFirst = std::to_string(i64First) + pszFirst;
    return i64Second == 0 ? strFirst : strFirst + " " + std::to_string(i64Second) + pszSecond;
  };
  if (i64Seconds < 60) {
    return std::to_string(i64Seconds) + " s";
  }
  if (i64Seconds < 3600) {
    return std::to_string(i64Seconds / 60) + " min";
  }
  if (i64Seconds < 86400) {
    return fnTwo(i64Seconds / 3600, " h", i64Seconds / 60 % 60, " min");
  }
  return fnTwo(i64Seconds / 86400, " d", i64Seconds / 3600 % 24, " h");
}

std::string StatusSummary(const StatusSnapshot& snapshot) {
  std::string strSummary =
      std::string("Link ") + (snapshot.link.bUp ? "up" : "down") + " for " + DurationWords(snapshot.linkStateAge);
  if (snapshot.optHeld) {
    strSummary += ", " + HeldClause(snapshot);
    if (snapshot.optHeld->optOldest) {
      strSummary += ", oldest " + DurationWords(*snapshot.optHeld->optOldest);
    }
  }
  if (snapshot.cache.bReadable) {
    strSummary += ", " + ByteWords(snapshot.cache.u64Bytes) + " of " + ByteWords(snapshot.cacheSettings.u64TotalLimit);
  }
  return strSummary + ".";
}

std::vector<std::string> StatusDetails(const StatusSnapshot& snapshot) {
  std::vector<std::string> vecSentences;
  const auto fnAdd = [&vecSentences](std::string strSentence) {
    if (!strSentence.empty()) {
      vecSentences.push_back(std::move(strSentence));
    }
  };
  if (!snapshot.link.bUp) {
    fnAdd(snapshot.strDownReason.empty() ? "The destination has not been reached yet."
                                         : "The link is down: " + snapshot.strDownReason);
  }
  if (snapshot.optRates) {
    fnAdd(RateSentence(snapshot));
    fnAdd(ForecastSentence(snapshot));
  }
  fnAdd(RefusedSentence(snapshot.intake));
  if (snapshot.link.u64Rejected != 0) {
    fnAdd(RecordWords(snapshot.link.u64Rejected) + (snapshot.link.u64Rejected == 1 ? " was" : " were") +
          " rejected by the destination since the start; qmlogcacheerror.log holds them.");
  }
  if (snapshot.cache.bReadable && static_cast<double>(snapshot.cache.u64Bytes) >=
                                      kNearlyFull * static_cast<double>(snapshot.cacheSettings.u64TotalLimit)) {
    fnAdd(std::string("The cache directory is nearly full. At its limit ") +
          (snapshot.cacheSettings.bKeepsAll ? "new records are no longer written to disk."
                                            : "new records are written over the oldest ones."));
  }
  if (snapshot.optComponent) {
    const auto age = std::chrono::duration_cast<seconds>(snapshot.time - snapshot.optComponent->time);
    fnAdd("The component's own count, " + DurationWords(age) +
          " ago: " + RecordWords(snapshot.optComponent->u64MemoryRecords) + " in memory.");
  }
  return vecSentences;
}
