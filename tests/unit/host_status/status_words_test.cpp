#include "host/status/status_words.h"

#include <gtest/gtest.h>

#include "status_test_support.h"

namespace {

using std::chrono::seconds;

bool Says(const StatusSnapshot& snapshot, const std::string& strSentence) {
  const std::vector<std::string> vecDetails = StatusDetails(snapshot);
  return std::find(vecDetails.begin(), vecDetails.end(), strSentence) != vecDetails.end();
}

TEST(StatusWordsTest, SaysWhatIsGoingOnInOneSentence) {
  EXPECT_EQ(StatusSummary(OutageSnapshot()), "Link down for 3 min, 1,204 records held, oldest 3 min, 38 MiB of 2 GiB.");
}

TEST(StatusWordsTest, EachClauseIsThereOnlyWhenItIsKnown) {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.optHeld->optOldest.reset();
  EXPECT_EQ(StatusSummary(snapshot), "Link down for 3 min, 1,204 records held, 38 MiB of 2 GiB.");
  snapshot.optHeld->optEarlier.reset();
  EXPECT_EQ(
      StatusSummary(snapshot),
      "Link down for 3 min, 1,204 records of this run held, beside what earlier runs may have left, 38 MiB of 2 GiB.");
  snapshot.optHeld.reset();
  EXPECT_EQ(StatusSummary(snapshot), "Link down for 3 min, 38 MiB of 2 GiB.");
  snapshot.cache.bReadable = false;
  EXPECT_EQ(StatusSummary(snapshot), "Link down for 3 min.");
}

TEST(StatusWordsTest, CountsWhatEarlierRunsLeft) {
  StatusSnapshot snapshot = OutageSnapshot();
  snapshot.optHeld->optEarlier = 96;
  snapshot.optHeld->bAtMost = true;
  EXPECT_EQ(StatusSummary(snapshot), "Link down for 3 min, at most 1,300 records held, oldest 3 min, 38 MiB of 2 GiB.");
  snapshot.optHeld->bAbout = true;
  EXPECT_EQ(StatusSummary(snapshot), "Link down for 3 min, about 1,300 records held, oldest 3 min, 38 MiB of 2 GiB.");
}

TEST(StatusWordsTest, AFreshHostHasNoRecordsYet) {
  StatusSnapshot snapshot;
  snapshot.link.bUp = true;
  snapshot.linkStateAge = seconds(12);
  snapshot.optHeld = HeldRecords{};
  snapshot.optHeld->optEarlier = 0;
  snapshot.cache.bReadable = true;
  snapshot.cacheSettings.u64TotalLimit = 1024;
  EXPECT_EQ(StatusSummary(snapshot), "Link up for 12 s, no records yet, 0 bytes of 1 KiB.");
  snapshot.intake.aAccepted[0] = 1;
  snapshot.link.u64Received = 1;
  EXPECT_EQ(StatusSummary(snapshot), "Link up for 12 s, no records held, 0 bytes of 1 KiB.");
  snapshot.optHeld->u64OfRun = 1;
  EXPECT_EQ(StatusSummary(snapshot), "Link up for 12 s, 1 record held, 0 bytes of 1 KiB.");
}

TEST(StatusWordsTest, TellsTheReasonOfAnOutage) {
  StatusSnapshot snapshot = OutageSnapshot();
  EXPECT_TRUE(Says(snapshot, "The link is down: cannot open /records"));
  snapshot.strDownReason.clear();
  EXPECT_TRUE(Says(snapshot, "The destination has not been reached yet."));
}

TEST(StatusWordsTest, TellsRatesAndWhenABacklogWillBeGone) {
  StatusSnapshot snapshot = OutageSnapshot();
  EXPECT_TRUE(Says(snapshot, "In the last minute 6.5 records a second came in and none were delivered."));
  snapshot.optRates->span = seconds(58);
  EXPECT_TRUE(Says(snapshot, "In the last minute 6.5 records a second came in and none were delivered."));
  snapshot.optRates->span = seconds(4);
  EXPECT_TRUE(Says(snapshot, "In the last 4 s 6.5 records a second came in and none were delivered."));
  snapshot.optRates = RecordRates{0, 0.01};
  EXPECT_TRUE(Says(snapshot, "In the last minute no records came in and none were delivered."));
  snapshot.link.bUp = true;
  snapshot.optRates = RecordRates{10, 2017};
  EXPECT_TRUE(Says(snapshot, "In the last minute 10 records a second came in and 2,017 a second were delivered."));
  EXPECT_EQ(StatusDetails(snapshot).size(), 3U);  // rates, refused, rejected: a second's work needs no forecast
  snapshot.optRates = RecordRates{10, 20};
  EXPECT_TRUE(Says(snapshot, "At this rate nothing waits any more in 2 min."));
  snapshot.optHeld->optEarlier.reset();
  EXPECT_FALSE(Says(snapshot, "At this rate nothing waits any more in 2 min."));
}

TEST(StatusWordsTest, TellsWhatNeedsLookingAt) {
  StatusSnapshot snapshot = OutageSnapshot();
  EXPECT_TRUE(Says(snapshot, "9 records were refused since the start, most with status 0xA0010014."));
  EXPECT_TRUE(
      Says(snapshot, "10 records were rejected by the destination since the start; qmlogcacheerror.log holds them."));
  const std::string strFull =
      "The cache directory is nearly full. At its limit new records are no longer written to disk.";
  EXPECT_FALSE(Says(snapshot, strFull));
  snapshot.cache.u64Bytes = snapshot.cacheSettings.u64TotalLimit / 100 * 95;
  EXPECT_TRUE(Says(snapshot, strFull));
  snapshot.cacheSettings.bKeepsAll = false;
  EXPECT_FALSE(Says(snapshot, strFull));
  EXPECT_TRUE(
      Says(snapshot, "The cache directory is nearly full. At its limit new records are written over the oldest ones."));
  snapshot.optComponent = ComponentStatistics{};
  snapshot.optComponent->time = snapshot.time - 4 * kMinute;
  snapshot.optComponent->u64MemoryRecords = 1190;
  EXPECT_TRUE(Says(snapshot, "The component's own count, 4 min ago: 1,190 records in memory."));
}

TEST(StatusWordsTest, WritesNumbersForPeople) {
  EXPECT_EQ(CountWords(0), "0");
  EXPECT_EQ(CountWords(999), "999");
  EXPECT_EQ(CountWords(1000), "1,000");
  EXPECT_EQ(CountWords(UINT64_MAX), "18,446,744,073,709,551,615");
  EXPECT_EQ(ByteWords(0), "0 bytes");
  EXPECT_EQ(ByteWords(1), "1 byte");
  EXPECT_EQ(ByteWords(1023), "1023 bytes");
  EXPECT_EQ(ByteWords(1536), "1.5 KiB");
  EXPECT_EQ(ByteWords(uint64_t{2} << 30), "2 GiB");
  EXPECT_EQ(ByteWords(UINT64_MAX), "16777216 TiB");
  EXPECT_EQ(DurationWords(seconds(0)), "0 s");
  EXPECT_EQ(DurationWords(seconds(59)), "59 s");
  EXPECT_EQ(DurationWords(seconds(3599)), "59 min");
  EXPECT_EQ(DurationWords(seconds(3600)), "1 h");
  EXPECT_EQ(DurationWords(seconds(7500)), "2 h 5 min");
  EXPECT_EQ(DurationWords(seconds(86400 * 3 + 7200)), "3 d 2 h");
}

}  // namespace
