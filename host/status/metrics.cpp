#include "host/status/metrics.h"

#include <prometheus/text_serializer.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <sstream>
#include <utility>

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

double Epoch(std::chrono::system_clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

class CFamilies {
 public:
  void Begin(const char* pszName, MetricType type, const char* pszHelp) {
    m_vecFamilies.push_back({pszName, pszHelp, type, {}});
  }
  void Add(double dValue, std::vector<ClientMetric::Label> vecLabels = {}) {
    MetricFamily& family = m_vecFamilies.back();
    ClientMetric metric;
    metric.label = std::move(vecLabels);
    if (family.type == MetricType::Counter) {
      metric.counter.value = dValue;
    } else {
      metric.gauge.value = dValue;
    }
    family.metric.push_back(std::move(metric));
  }
  void One(const char* pszName, MetricType type, const char* pszHelp, double dValue) {
    Begin(pszName, type, pszHelp);
    Add(dValue);
  }
  template <typename TCounts>
  void ByPriority(const char* pszName, MetricType type, const char* pszHelp, const TCounts& counts) {
    Begin(pszName, type, pszHelp);
    for (size_t i = 0; i < counts.size(); ++i) {
      Add(static_cast<double>(counts[i]), {{"priority", kPriorityNames[i]}});
    }
  }
  std::vector<MetricFamily> Take() { return std::move(m_vecFamilies); }

 private:
  std::vector<MetricFamily> m_vecFamilies;
};

constexpr MetricType kCounter = MetricType::Counter;
constexpr MetricType kGauge = MetricType::Gauge;

void AddIntake(const StatusSnapshot& snapshot, CFamilies& families) {
  families.ByPriority("qmhost_records_accepted_total", kCounter, "Records that were accepted from producers.",
                      snapshot.intake.aAccepted);
  if (snapshot.intake.vecRefused.empty() && snapshot.intake.u64RefusedOtherwise == 0) {
    return;
  }
  families.Begin("qmhost_messages_refused_total", kCounter,
                 "Messages of producers that were answered with a status other than success.");
  for (const auto& [uStatus, u64Count] : snapshot.intake.vecRefused) {
    std::array<char, 16> acCode{};
    std::snprintf(acCode.data(), acCode.size(), "0x%08" PRIX32, uStatus);
    families.Add(static_cast<double>(u64Count), {{"code", acCode.data()}});
  }
  if (snapshot.intake.u64RefusedOtherwise != 0) {
    families.Add(static_cast<double>(snapshot.intake.u64RefusedOtherwise), {{"code", "other"}});
  }
}

void AddLink(const StatusSnapshot& snapshot, CFamilies& families) {
  const ServerLinkCounts& link = snapshot.link;
  families.One("qmhost_link_up", kGauge, "Whether the destination can be reached.", link.bUp ? 1 : 0);
  families.One("qmhost_link_state_change_timestamp_seconds", kGauge,
               "When the link last went up or down, or was started.", Epoch(snapshot.linkChanged));
  families.One("qmhost_link_sends_total", kCounter, "Records that were handed to the link, each time they were sent.",
               static_cast<double>(link.u64Received));
  families.ByPriority("qmhost_records_delivered_total", kCounter, "Records that the destination has taken.",
                      link.aDelivered);
  families.ByPriority("qmhost_records_rejected_total", kCounter,
                      "Records that the destination has refused for good, and that were dropped.", link.aRejected);
  families.One("qmhost_link_retried_total", kCounter, "Sends that ended so that the record is sent again.",
               static_cast<double>(link.u64Retried));
  families.One("qmhost_link_in_flight_records", kGauge, "Records that were handed to the link and have no outcome yet.",
               static_cast<double>(link.u64Held));
}

void AddHeld(const HeldRecords& held, CFamilies& families) {
  families.ByPriority("qmhost_held_records", kGauge,
                      "Records that were accepted since the start and are neither delivered nor rejected.",
                      held.aOfRun);
  if (held.optEarlier) {
    families.One("qmhost_held_earlier_records", kGauge,
                 "Records of earlier runs that are neither delivered nor rejected.",
                 static_cast<double>(*held.optEarlier));
  }
  if (held.optOldest || held.u64OfRun == 0) {
    families.One(
        "qmhost_held_oldest_age_seconds", kGauge,
        "How long the oldest record of this run has been held at least, as if each priority's were settled in order.",
        held.optOldest ? static_cast<double>(held.optOldest->count()) : 0);
  }
}

void AddCache(const StatusSnapshot& snapshot, CFamilies& families) {
  if (!snapshot.cache.bReadable) {
    return;
  }
  families.One("qmhost_cache_bytes", kGauge, "Size of all files under the cache directory.",
               static_cast<double>(snapshot.cache.u64Bytes));
  families.One("qmhost_cache_limit_bytes", kGauge, "Size of the cache directory at which no more is cached.",
               static_cast<double>(snapshot.cacheSettings.u64TotalLimit));
  families.One("qmhost_cache_files", kGauge, "Cache files in the cache directory.",
               static_cast<double>(snapshot.cache.uFiles));
  if (!snapshot.cache.vecFiles.empty()) {
    families.Begin("qmhost_cache_file_bytes", kGauge, "Size of a sender's cache file with its write-ahead log.");
    for (const CacheFile& file : snapshot.cache.vecFiles) {
      families.Add(static_cast<double>(file.u64Bytes), {{"sender", file.strSender}});
    }
  }
  bool bBegun = false;
  for (const CacheFile& file : snapshot.cache.vecFiles) {
    if (file.optRows) {
      if (!std::exchange(bBegun, true)) {
        families.Begin("qmhost_cache_file_rows", kGauge, "Records in a sender's cache file, when last counted.");
      }
      families.Add(static_cast<double>(*file.optRows), {{"sender", file.strSender}});
    }
  }
}

void AddComponent(const ComponentStatistics& component, CFamilies& families) {
  families.One("qmhost_component_statistics_timestamp_seconds", kGauge,
               "When the component last told the qmhost_component figures.", Epoch(component.time));
  families.One("qmhost_component_memory_records", kGauge, "Records in the component's memory.",
               static_cast<double>(component.u64MemoryRecords));
  families.ByPriority("qmhost_component_queued_records", kGauge, "Records in the component's queues.",
                      component.aQueued);
  families.One("qmhost_component_single_send", kGauge,
               "Whether the component sends one record at a time after failures.", component.bSingleSend ? 1 : 0);
  families.One("qmhost_component_failures_in_row", kGauge, "Failed sends since the last one that did not fail.",
               static_cast<double>(component.u64FailuresInRow));
  families.One("qmhost_component_store_failures_total", kCounter, "Records that the component could not store.",
               static_cast<double>(component.u64StoreFailures));
  families.One("qmhost_component_send_failures_total", kCounter,
               "Records that the router refused to send, and that were dropped.",
               static_cast<double>(component.u64SendFailures));
  const auto fnByAttempt = [&](const char* pszName, const char* pszHelp, const std::array<uint64_t, 2>& aCounts) {
    families.Begin(pszName, kCounter, pszHelp);
    families.Add(static_cast<double>(aCounts[0]), {{"attempt", "first"}});
    families.Add(static_cast<double>(aCounts[1]), {{"attempt", "repeat"}});
  };
  fnByAttempt("qmhost_component_timeouts_total", "Sends that timed out.", component.aTimedOut);
  fnByAttempt("qmhost_component_turned_back_total", "Sends that the destination's side could not take for now.",
              component.aTurnedBack);
}

}  // namespace

std::vector<MetricFamily> StatusMetrics(const StatusSnapshot& snapshot) {
  CFamilies families;
  families.Begin("qmhost_build_info", kGauge, "Always 1; the version is the label.");
  families.Add(1, {{"version", snapshot.strVersion}});
  families.One("qmhost_start_time_seconds", kGauge, "When the host was started.", Epoch(snapshot.started));
  AddIntake(snapshot, families);
  AddLink(snapshot, families);
  if (snapshot.optHeld) {
    AddHeld(*snapshot.optHeld, families);
  }
  AddCache(snapshot, families);
  if (snapshot.optComponent) {
    AddComponent(*snapshot.optComponent, families);
  }
  return families.Take();
}

std::string MetricsText(const StatusSnapshot& snapshot) {
  std::ostringstream stream;
  // Whatever the process's locale is.
  stream.imbue(std::locale::classic());
  prometheus::TextSerializer().Serialize(stream, StatusMetrics(snapshot));
  return stream.str();
}
