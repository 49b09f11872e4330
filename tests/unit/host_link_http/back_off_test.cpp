#include "host/link/back_off.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(BackOffTest, TheCeilingDoublesUpToTheLongestPause) {
  CBackOff backOff(1, milliseconds(60000));
  for (const int iCeiling : {4000, 8000, 16000, 32000, 60000, 60000}) {
    EXPECT_EQ(backOff.Ceiling(), milliseconds(iCeiling));
    const milliseconds pause = backOff.Next(std::nullopt);
    EXPECT_GE(pause, milliseconds(0));
    EXPECT_LE(pause, milliseconds(iCeiling));
  }
  backOff.Reset();
  EXPECT_EQ(backOff.Ceiling(), kFirstBackOff);
}

TEST(BackOffTest, ALongestPauseBelowTheFirstHolds) {
  CBackOff backOff(1, milliseconds(100));
  for (int i = 0; i < 100; ++i) {
    EXPECT_LE(backOff.Next(std::nullopt), milliseconds(100));
  }
}

TEST(BackOffTest, TheSeedDecides) {
  CBackOff first(7, milliseconds(60000));
  CBackOff same(7, milliseconds(60000));
  CBackOff other(8, milliseconds(60000));
  bool bDiffers = false;
  for (int i = 0; i < 10; ++i) {
    const milliseconds pause = first.Next(std::nullopt);
    EXPECT_EQ(pause, same.Next(std::nullopt));
    bDiffers = bDiffers || pause != other.Next(std::nullopt);
  }
  EXPECT_TRUE(bDiffers);
}

TEST(BackOffTest, WhatTheServerAsksForIsTheLeastAndIsSpreadToo) {
  std::vector<milliseconds> vecPauses;
  for (uint64_t u64Seed = 1; u64Seed <= 1000; ++u64Seed) {
    CBackOff backOff(u64Seed, milliseconds(60000));
    vecPauses.push_back(backOff.Next(seconds(30)));
  }
  const auto [itLeast, itMost] = std::minmax_element(vecPauses.begin(), vecPauses.end());
  EXPECT_GE(*itLeast, seconds(30));
  EXPECT_LE(*itMost, seconds(34));
  EXPECT_GT(*itMost - *itLeast, milliseconds(3900));
}

// Of agents that lost their server at the same moment, so many come back in each tenth of the pause.
TEST(BackOffTest, AFleetComesBackSpreadOverTheWholePause) {
  constexpr int kAgents = 10000;
  std::vector<int> vecTenths(10);
  for (uint64_t u64Seed = 1; u64Seed <= kAgents; ++u64Seed) {
    CBackOff backOff(u64Seed, milliseconds(60000));
    while (backOff.Ceiling() < milliseconds(60000)) {
      static_cast<void>(backOff.Next(std::nullopt));
    }
    ++vecTenths[static_cast<size_t>(std::min<int64_t>(backOff.Next(std::nullopt).count() / 6000, 9))];
  }
  for (const int iAgents : vecTenths) {
    EXPECT_GT(iAgents, kAgents / 10 * 8 / 10);
    EXPECT_LT(iAgents, kAgents / 10 * 12 / 10);
  }
}

TEST(BackOffTest, AnAttemptThatManyMakeAtOnceIsSpreadAndMakesNoPauseLonger) {
  std::vector<milliseconds> vecWaits;
  for (uint64_t u64Seed = 1; u64Seed <= 1000; ++u64Seed) {
    CBackOff backOff(u64Seed, milliseconds(60000));
    vecWaits.push_back(backOff.Spread());
    EXPECT_EQ(backOff.Ceiling(), kFirstBackOff);
    EXPECT_LE(CBackOff(u64Seed, milliseconds(100)).Spread(), milliseconds(100));
  }
  const auto [itLeast, itMost] = std::minmax_element(vecWaits.begin(), vecWaits.end());
  EXPECT_GE(*itLeast, milliseconds(0));
  EXPECT_LE(*itMost, kLongestSpread);
  EXPECT_GT(*itMost - *itLeast, milliseconds(1900));
}

TEST(BackOffTest, SeedsOfTheSystemDiffer) {
  EXPECT_NE(MakeSeed(), MakeSeed());
}

}  // namespace
