#include "host/status/metrics.h"

#include <gtest/gtest.h>
#include <prometheus/check_names.h>

#include <set>

#include "status_test_support.h"

namespace {

StatusSnapshot FullSnapshot() {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.optComponent = ComponentStatistics{};
  snapshot.optComponent->u64MemoryRecords = 250;
  return snapshot;
}

bool Has(const std::string& strText, const std::string& strLine) {
  return ("\n" + strText).find("\n" + strLine + "\n") != std::string::npos;
}

TEST(MetricsTest, TellsWhatIsKnown) {
  const std::string strText = MetricsText(FullSnapshot());
  for (const char* pszLine : {
           "# TYPE qmhost_records_accepted_total counter",
           "qmhost_records_accepted_total{priority=\"low\"} 1000",
           "qmhost_records_accepted_total{priority=\"real\"} 4",
           "qmhost_messages_refused_total{code=\"0xA0010014\"} 7",
           "qmhost_records_delivered_total{priority=\"normal\"} 400",
           "qmhost_records_rejected_total{priority=\"low\"} 10",
           "qmhost_link_up 0",
           "qmhost_link_sends_total 800",
           "qmhost_link_retried_total 20",
           "qmhost_link_in_flight_records 30",
           "qmhost_link_state_change_timestamp_seconds 1799999816",
           "qmhost_held_records{priority=\"low\"} 650",
           "qmhost_held_earlier_records 0",
           "qmhost_held_oldest_age_seconds 180",
           "qmhost_cache_bytes 39845888",
           "qmhost_cache_file_bytes{sender=\"AAAA\"} 30000000",
           "qmhost_cache_file_rows{sender=\"BBBB\"} 12",
           "qmhost_component_memory_records 250",
           "qmhost_build_info{version=\"1.2.3\"} 1",
       }) {
    EXPECT_TRUE(Has(strText, pszLine)) << pszLine << " is not in\n" << strText;
  }
  EXPECT_EQ(strText.find("rows{sender=\"AAAA\"}"), std::string::npos);
}

TEST(MetricsTest, WhatIsNotKnownIsLeftOut) {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.optHeld.reset();
  snapshot.cache.bReadable = false;
  snapshot.intake.vecRefused.clear();
  const std::string strText = MetricsText(snapshot);
  for (const char* pszAbsent : {"qmhost_held", "qmhost_cache", "qmhost_component", "qmhost_messages_refused"}) {
    EXPECT_EQ(strText.find(pszAbsent), std::string::npos) << pszAbsent;
  }
  EXPECT_TRUE(Has(strText, "qmhost_link_up 0"));
}

TEST(MetricsTest, AnAgeThatIsNotKnownIsNotZero) {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.optHeld->optOldest.reset();
  EXPECT_EQ(MetricsText(snapshot).find("qmhost_held_oldest_age_seconds"), std::string::npos);
  snapshot.optHeld->u64OfRun = 0;
  EXPECT_TRUE(Has(MetricsText(snapshot), "qmhost_held_oldest_age_seconds 0"));
}

TEST(MetricsTest, NamesFollowTheConventions) {
  std::set<std::string> setNames;
  for (const prometheus::MetricFamily& family : StatusMetrics(FullSnapshot())) {
    EXPECT_TRUE(prometheus::CheckMetricName(family.name)) << family.name;
    EXPECT_TRUE(setNames.insert(family.name).second) << family.name;
    EXPECT_EQ(family.name.rfind("qmhost_", 0), 0U) << family.name;
    EXPECT_FALSE(family.help.empty()) << family.name;
    EXPECT_FALSE(family.metric.empty()) << family.name;
    const bool bTotal = family.name.size() > 6 && family.name.substr(family.name.size() - 6) == "_total";
    EXPECT_EQ(bTotal, family.type == prometheus::MetricType::Counter) << family.name;
  }
}

TEST(MetricsTest, ASendersNameCannotForgeAMetric) {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.cache.vecFiles = {{"a\"} 1\nforged 2\\", 5, 1, std::nullopt, "F.db"}};
  const std::string strText = MetricsText(snapshot);
  EXPECT_TRUE(Has(strText, "qmhost_cache_file_bytes{sender=\"a\\\"} 1\\nforged 2\\\\\"} 5")) << strText;
  EXPECT_FALSE(Has(strText, "forged 2\\\"} 5"));
}

}  // namespace
