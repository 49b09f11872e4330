#include "host/status/status_json.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <numeric>

#include "host/status/status_words.h"

namespace {

using nlohmann::json;

// Cache files whose sizes the page can draw one by one.
constexpr size_t kDrawnFiles = 4;

double Epoch(std::chrono::system_clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

template <typename T>
json OrNull(const std::optional<T>& optValue) {
  return optValue ? json(*optValue) : json(nullptr);
}

template <typename TCounts>
json ByPriority(const TCounts& counts) {
  json object = json::object();
  for (size_t i = 0; i < counts.size(); ++i) {
    object[kPriorityNames[i]] = counts[i];
  }
  return object;
}

json Refused(const IntakeCounts& intake) {
  json object = json::object();
  for (const auto& [uStatus, u64Count] : intake.vecRefused) {
    std::array<char, 16> acCode{};
    std::snprintf(acCode.data(), acCode.size(), "0x%08" PRIX32, uStatus);
    object[acCode.data()] = u64Count;
  }
  if (intake.u64RefusedOtherwise != 0) {
    object["other"] = intake.u64RefusedOtherwise;
  }
  return object;
}

json Held(const std::optional<HeldRecords>& optHeld) {
  if (!optHeld) {
    return nullptr;
  }
  json total = nullptr;
  if (optHeld->optEarlier) {
    total = optHeld->u64OfRun + *optHeld->optEarlier;
  }
  return {{"total", std::move(total)},
          {"of_this_run", optHeld->u64OfRun},
          {"of_earlier_runs", OrNull(optHeld->optEarlier)},
          {"by_priority", ByPriority(optHeld->aOfRun)},
          {"at_most", optHeld->bAtMost},
          {"about", optHeld->bAbout},
          {"oldest_seconds", optHeld->optOldest ? json(optHeld->optOldest->count()) : json(nullptr)}};
}

json Cache(const StatusSnapshot& snapshot) {
  if (!snapshot.cache.bReadable) {
    return nullptr;
  }
  json files = json::array();
  for (const CacheFile& file : snapshot.cache.vecFiles) {
    files.push_back({{"sender", file.strSender}, {"bytes", file.u64Bytes}, {"rows", OrNull(file.optRows)}});
  }
  return {{"directory", std::filesystem::path(snapshot.cacheSettings.strDirectory).lexically_normal().string()},
          {"bytes", snapshot.cache.u64Bytes},
          {"limit_bytes", snapshot.cacheSettings.u64TotalLimit},
          {"file_limit_bytes", snapshot.cacheSettings.u64FileLimit},
          {"file_count", snapshot.cache.uFiles},
          {"files", std::move(files)}};
}

json ByAttempt(const std::array<uint64_t, 2>& aCounts) {
  return {{"first", aCounts[0]}, {"repeat", aCounts[1]}};
}

json Component(const std::optional<ComponentStatistics>& optComponent) {
  if (!optComponent) {
    return nullptr;
  }
  return {{"time", Epoch(optComponent->time)},
          {"memory_records", optComponent->u64MemoryRecords},
          {"queued", ByPriority(optComponent->aQueued)},
          {"single_send", optComponent->bSingleSend},
          {"failures_in_row", optComponent->u64FailuresInRow},
          {"store_failures", optComponent->u64StoreFailures},
          {"send_failures", optComponent->u64SendFailures},
          {"timed_out", ByAttempt(optComponent->aTimedOut)},
          {"turned_back", ByAttempt(optComponent->aTurnedBack)}};
}

json Rates(const std::optional<RecordRates>& optRates) {
  if (!optRates) {
    return nullptr;
  }
  return {{"accepted_per_second", optRates->dAccepted}, {"delivered_per_second", optRates->dDelivered}};
}

std::string Text(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// The largest files of the newest sample, in the order of their names, so that each keeps its place while sizes change.
json FileColumns(const std::deque<HistorySample>& dequeSamples) {
  json columns = json::array();
  std::vector<std::string> vecSenders;
  for (const auto& [strSender, u64Bytes] : dequeSamples.back().vecFiles) {
    vecSenders.push_back(strSender);
  }
  vecSenders.resize(std::min(vecSenders.size(), kDrawnFiles));
  std::sort(vecSenders.begin(), vecSenders.end());
  for (const std::string& strSender : vecSenders) {
    json column = json::array();
    for (const HistorySample& sample : dequeSamples) {
      const auto it = std::find_if(sample.vecFiles.begin(), sample.vecFiles.end(),
                                   [&](const auto& file) { return file.first == strSender; });
      column.push_back(it == sample.vecFiles.end() ? json(nullptr) : json(it->second));
    }
    columns.push_back({{"sender", strSender}, {"bytes", std::move(column)}});
  }
  return columns;
}

}  // namespace

std::string StatusJson(const StatusSnapshot& snapshot) {
  return Text({{"version", snapshot.strVersion},
               {"time", Epoch(snapshot.time)},
               {"started", Epoch(snapshot.started)},
               {"summary", StatusSummary(snapshot)},
               {"details", StatusDetails(snapshot)},
               {"link",
                {{"up", snapshot.link.bUp},
                 {"state_seconds", snapshot.linkStateAge.count()},
                 {"destination", snapshot.strLink},
                 {"reason", snapshot.strDownReason.empty() ? json(nullptr) : json(snapshot.strDownReason)},
                 {"sends", snapshot.link.u64Received},
                 {"retried", snapshot.link.u64Retried},
                 {"in_flight", snapshot.link.u64Held}}},
               {"records",
                {{"accepted", ByPriority(snapshot.intake.aAccepted)},
                 {"delivered", ByPriority(snapshot.link.aDelivered)},
                 {"rejected", ByPriority(snapshot.link.aRejected)},
                 {"refused", Refused(snapshot.intake)}}},
               {"rates", Rates(snapshot.optRates)},
               {"held", Held(snapshot.optHeld)},
               {"cache", Cache(snapshot)},
               {"component", Component(snapshot.optComponent)}});
}

std::string HistoryJson(const std::deque<HistorySample>& dequeSamples, StatusTime now,
                        std::chrono::system_clock::time_point time, std::chrono::seconds step,
                        std::chrono::seconds span) {
  json age = json::array();
  json accepted = json::array();
  json delivered = json::array();
  json linkUp = json::array();
  json cacheBytes = json::array();
  json held = json::object();
  for (const char* pszPriority : kPriorityNames) {
    held[pszPriority] = json::array();
  }
  for (const HistorySample& sample : dequeSamples) {
    age.push_back(std::round(std::chrono::duration<double>(now - sample.when).count() * 1000) / 1000);
    accepted.push_back(std::accumulate(sample.aAccepted.begin(), sample.aAccepted.end(), uint64_t{0}));
    delivered.push_back(sample.u64Delivered);
    linkUp.push_back(sample.bLinkUp);
    cacheBytes.push_back(OrNull(sample.optCacheBytes));
    for (size_t i = 0; i < kPriorityNames.size(); ++i) {
      held[kPriorityNames[i]].push_back(sample.optHeld ? json((*sample.optHeld)[i]) : json(nullptr));
    }
  }
  return Text({{"time", Epoch(time)},
               {"step_seconds", step.count()},
               {"span_seconds", span.count()},
               {"age_seconds", std::move(age)},
               {"accepted", std::move(accepted)},
               {"delivered", std::move(delivered)},
               {"link_up", std::move(linkUp)},
               {"held", std::move(held)},
               {"cache_bytes", std::move(cacheBytes)},
               {"cache_files", dequeSamples.empty() ? json::array() : FileColumns(dequeSamples)}});
}
