#include "host/status/history.h"

#include <gtest/gtest.h>

#include "host/status/held_records.h"
#include "status_test_support.h"

namespace {

using std::chrono::seconds;

HistorySample Sample(seconds when, uint64_t u64Accepted, uint64_t u64Delivered = 0, bool bUp = true) {
  HistorySample sample;
  sample.when = At(when);
  sample.aAccepted = {0, u64Accepted, 0, 0, 0};
  sample.u64Delivered = u64Delivered;
  sample.bLinkUp = bUp;
  return sample;
}

TEST(HistoryTest, KeepsTenMinutesFineAndADayCoarse) {
  CHistory history;
  for (seconds when{0}; when <= seconds(25 * 3600); when += kFineStep) {
    history.Add(Sample(when, 0));
  }
  EXPECT_EQ(history.Fine().size(), 301U);
  EXPECT_EQ(history.Fine().back().when - history.Fine().front().when, kFineSpan);
  EXPECT_EQ(history.Coarse().size(), 1441U);
  EXPECT_EQ(history.Coarse().back().when - history.Coarse().front().when, kCoarseSpan);
}

TEST(HistoryTest, AnOutageBetweenTwoCoarseSamplesIsSeen) {
  CHistory history;
  for (int i = 0; i <= 90; ++i) {
    history.Add(Sample(seconds(2 * i), 0, 0, i != 40));
  }
  ASSERT_EQ(history.Coarse().size(), 4U);
  EXPECT_TRUE(history.Coarse()[1].bLinkUp);
  EXPECT_FALSE(history.Coarse()[2].bLinkUp);
  EXPECT_TRUE(history.Coarse()[3].bLinkUp);
}

TEST(HistoryTest, RatesAreOfTheSpanAsked) {
  CHistory history;
  EXPECT_FALSE(history.Rates(kMinute));
  history.Add(Sample(seconds(0), 0));
  EXPECT_FALSE(history.Rates(kMinute));
  history.Add(Sample(seconds(40), 4000, 40));
  history.Add(Sample(seconds(70), 4300, 100));
  const std::optional<RecordRates> optRates = history.Rates(kMinute);
  ASSERT_TRUE(optRates);
  EXPECT_DOUBLE_EQ(optRates->dAccepted, 10);
  EXPECT_DOUBLE_EQ(optRates->dDelivered, 2);
  EXPECT_EQ(optRates->span, seconds(30));
}

TEST(HistoryTest, RemembersWhenSoManyHadBeenAccepted) {
  CHistory history;
  for (int i = 0; i <= 1000; ++i) {
    history.Add(Sample(seconds(2 * i), static_cast<uint64_t>(i)));
  }
  // Within the last ten minutes to the sample, before that to the minute.
  EXPECT_EQ(history.WhenAccepted(1, 900), At(seconds(1802)));
  EXPECT_EQ(history.WhenAccepted(1, 301), At(seconds(660)));
  EXPECT_EQ(history.WhenAccepted(1, 1000), std::nullopt);
  EXPECT_EQ(history.WhenAccepted(0, 0), std::nullopt);
}

class HeldRecordsTest : public ::testing::Test {
 protected:
  HeldRecordsTest() {
    m_input.aAccepted = {10, 100, 0, 5, 0};
    m_input.link.aSettledOfRun = {10, 40, 0, 6, 0};
    m_input.link.u64Delivered = 60;
    m_input.link.u64Rejected = 4;
    m_input.optRowsAtStart = 20;
  }
  HeldRecords Count() const { return CountHeldRecords(m_input, m_history, At(seconds(100))); }

  HeldInput m_input;
  CHistory m_history;
};

TEST_F(HeldRecordsTest, WhatCameInAndWasNotSettledIsHeld) {
  const HeldRecords held = Count();
  EXPECT_EQ(held.aOfRun, (PriorityCounts{0, 60, 0, 0, 0}));
  EXPECT_EQ(held.u64OfRun, 60U);
  EXPECT_FALSE(held.bAtMost);
}

TEST_F(HeldRecordsTest, WhatEarlierRunsLeftIsCountedDown) {
  EXPECT_EQ(Count().optEarlier, 12U);  // 64 were settled, 56 of them of this run
  m_input.optRowsAtStart = 3;
  EXPECT_EQ(Count().optEarlier, 0U);
  m_input.optRowsAtStart.reset();
  EXPECT_EQ(Count().optEarlier, std::nullopt);
}

TEST_F(HeldRecordsTest, AComponentThatDropsRecordsMakesItABound) {
  m_input.bKeepsAll = false;
  EXPECT_TRUE(Count().bAtMost);
  m_input.bKeepsAll = true;
  m_input.bHasDropped = true;
  EXPECT_TRUE(Count().bAtMost);
}

TEST_F(HeldRecordsTest, ARecordThatWasNotAnsweredInTimeMakesItAnEstimate) {
  EXPECT_FALSE(Count().bAbout);
  m_input.bHasNotAnswered = true;
  EXPECT_TRUE(Count().bAbout);
}

TEST_F(HeldRecordsTest, TheOldestIsAsOldAsTheFirstAcceptanceBeyondWhatIsSettled) {
  EXPECT_EQ(Count().optOldest, std::nullopt);
  m_history.Add(Sample(seconds(0), 0));
  m_history.Add(Sample(seconds(10), 40));
  m_history.Add(Sample(seconds(30), 41));
  m_history.Add(Sample(seconds(90), 100));
  EXPECT_EQ(Count().optOldest, seconds(70));
  m_input.link.aSettledOfRun[1] = 100;
  EXPECT_EQ(Count().optOldest, std::nullopt);
}

}  // namespace
