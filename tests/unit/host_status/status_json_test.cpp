#include "host/status/status_json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "status_test_support.h"

namespace {

using nlohmann::json;
using std::chrono::seconds;

TEST(StatusJsonTest, HoldsTheFigures) {
  const json status = json::parse(StatusJson(OutageSnapshot()));
  EXPECT_EQ(status["summary"], "Link down for 3 min, 1,204 records held, oldest 3 min, 38 MiB of 2 GiB.");
  EXPECT_EQ(status["version"], "1.2.3");
  EXPECT_EQ(status["time"], 1800000000.0);
  EXPECT_EQ(status["started"], 1799992800.0);
  EXPECT_EQ(status["link"], json({{"up", false},
                                  {"state_seconds", 184},
                                  {"destination", "file /records"},
                                  {"reason", "cannot open /records"},
                                  {"sends", 800},
                                  {"retried", 20},
                                  {"in_flight", 30}}));
  EXPECT_EQ(status["records"]["accepted"],
            json({{"low", 1000}, {"normal", 900}, {"high", 50}, {"real", 4}, {"other", 0}}));
  EXPECT_EQ(status["records"]["refused"], json({{"0xE0020001", 2}, {"0xA0010014", 7}}));
  EXPECT_EQ(status["held"]["total"], 1204);
  EXPECT_EQ(status["held"]["by_priority"]["low"], 650);
  EXPECT_EQ(status["held"]["oldest_seconds"], 180);
  EXPECT_EQ(status["cache"]["bytes"], 38 << 20);
  EXPECT_EQ(status["cache"]["files"][0], json({{"sender", "AAAA"}, {"bytes", 30000000}, {"rows", nullptr}}));
  EXPECT_EQ(status["cache"]["files"][1]["rows"], 12);
}

TEST(StatusJsonTest, WhatIsNotKnownIsNull) {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.optHeld->optEarlier.reset();
  snapshot.optHeld->optOldest.reset();
  snapshot.cache.bReadable = false;
  snapshot.optRates.reset();
  snapshot.strDownReason.clear();
  json status = json::parse(StatusJson(snapshot));
  EXPECT_TRUE(status["held"]["total"].is_null());
  EXPECT_TRUE(status["held"]["oldest_seconds"].is_null());
  for (const char* pszField : {"cache", "rates", "component"}) {
    EXPECT_TRUE(status[pszField].is_null()) << pszField;
  }
  EXPECT_TRUE(status["link"]["reason"].is_null());
  snapshot.optHeld.reset();
  EXPECT_TRUE(json::parse(StatusJson(snapshot))["held"].is_null());
}

TEST(StatusJsonTest, HoldsWhatTheComponentTells) {
  StatusSnapshot snapshot = OutageSnapshot();
  ComponentStatistics component;
  component.time = snapshot.time;
  component.u64MemoryRecords = 9;
  component.aQueued = {1, 2, 3, 4};
  component.bSingleSend = true;
  component.u64FailuresInRow = 5;
  component.u64StoreFailures = 6;
  component.u64SendFailures = 7;
  component.aTimedOut = {10, 11};
  component.aTurnedBack = {12, 13};
  snapshot.optComponent = component;
  EXPECT_EQ(json::parse(StatusJson(snapshot))["component"],
            json({{"time", 1800000000.0},
                  {"memory_records", 9},
                  {"queued", {{"low", 1}, {"normal", 2}, {"high", 3}, {"real", 4}}},
                  {"single_send", true},
                  {"failures_in_row", 5},
                  {"store_failures", 6},
                  {"send_failures", 7},
                  {"timed_out", {{"first", 10}, {"repeat", 11}}},
                  {"turned_back", {{"first", 12}, {"repeat", 13}}}}));
}

TEST(StatusJsonTest, BadBytesOfAReasonDoNoHarm) {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.strDownReason = "bad \xff\xc3 \"</script>\" \x01";
  EXPECT_EQ(json::parse(StatusJson(snapshot))["link"]["reason"], "bad \xEF\xBF\xBD\xEF\xBF\xBD \"</script>\" \x01");
}

TEST(StatusJsonTest, TheHistoryIsInColumns) {
  std::deque<HistorySample> dequeSamples(3);
  for (size_t i = 0; i < dequeSamples.size(); ++i) {
    HistorySample& sample = dequeSamples[i];
    sample.when = At(seconds(2 * i));
    sample.aAccepted = {i, i, 0, 0, 0};
    sample.u64Delivered = i;
    sample.bLinkUp = i != 1;
  }
  dequeSamples[1].optHeld = PriorityCounts{7, 0, 0, 0, 0};
  dequeSamples[1].optCacheBytes = 99;
  dequeSamples[1].vecFiles = {{"B", 60}, {"A", 39}};
  dequeSamples[2].vecFiles = {{"A", 50}};
  const json history = json::parse(HistoryJson(dequeSamples, At(seconds(5)), {}, kFineStep, kFineSpan));
  EXPECT_EQ(history["age_seconds"], json({5.0, 3.0, 1.0}));
  EXPECT_EQ(history["accepted"], json({0, 2, 4}));
  EXPECT_EQ(history["delivered"], json({0, 1, 2}));
  EXPECT_EQ(history["link_up"], json({true, false, true}));
  EXPECT_EQ(history["held"]["low"], json({nullptr, 7, nullptr}));
  EXPECT_EQ(history["cache_bytes"], json({nullptr, 99, nullptr}));
  EXPECT_EQ(history["cache_files"], json::array({{{"sender", "A"}, {"bytes", {nullptr, 39, 50}}}}));
  EXPECT_EQ(history["step_seconds"], 2);
  EXPECT_EQ(history["span_seconds"], 600);
  EXPECT_EQ(json::parse(HistoryJson({}, At(seconds(5)), {}, kFineStep, kFineSpan))["cache_files"], json::array());
}

}  // namespace
