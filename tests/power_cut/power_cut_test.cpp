// What a power cut leaves of the records. QM_POWER_CUTS is the number of cuts for each storage sync of the component,
// 200 without it; QM_POWER_CUT_SEED the seed of the first directory, each further one having the next. A fault names
// its seed, and the same seed with one cut repeats it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "db/sqlite_wrapper.h"
#include "tests/power_cut/power_cuts.h"

namespace {

constexpr uint64_t kCuts = 200;

uint64_t FromEnvironment(const char* pszName, uint64_t u64Default) {
  const char* pszValue = getenv(pszName);
  return pszValue == nullptr ? u64Default : strtoull(pszValue, nullptr, 10);
}

PowerCutFigures Run(const char* pszWhat, PowerCutOptions options) {
  constexpr uint64_t kSeed = 20260101;
  options.u64Seed = FromEnvironment("QM_POWER_CUT_SEED", kSeed);
  const PowerCutFigures figures = CutPower(options);
  std::cout << pszWhat << ", seed " << options.u64Seed << ": " << Describe(figures) << std::endl;
  return figures;
}

PowerCutFigures RunComponent(const char* pszWhat, int iStorageSync, size_t uMayLose) {
  const PowerCutFigures figures =
      Run(pszWhat, {ComponentStore(iStorageSync), uMayLose, false, true, FromEnvironment("QM_POWER_CUTS", kCuts), 0});
  EXPECT_GT(figures.uRecordsChecked, 0U);
  return figures;
}

PowerCutFigures RunPlain(const char* pszPragmas) {
  constexpr size_t kPlainCuts = 60;
  return Run(pszPragmas, {PlainStore(pszPragmas), 0, true, false, kPlainCuts, 0});
}

}  // namespace

TEST(PowerCutTest, FullSyncLosesNothingAcknowledged) {
  EXPECT_EQ(RunComponent("full sync", 2, 0).Faults(), 0U);
}

// The call that brings the log to so many frames writes everything to the disk, and a commit is a frame at least.
TEST(PowerCutTest, NormalSyncLosesOnlyTheNewestCommitsSinceTheLastCheckpoint) {
  const PowerCutFigures figures = RunComponent("normal sync", 1, kCheckpointFrames - 1);
  EXPECT_EQ(figures.Faults(), 0U);
  if (figures.uCuts >= kCuts) {
    EXPECT_GT(figures.uMostCommitsLost, 0U) << "nothing was ever lost, so that nothing was put to the test";
  }
}

// SQLite's default leaves the removal of the journal unsynced: the journal comes back and undoes the last commit.
TEST(PowerCutTest, CutsShowThatSqlitesDefaultLosesTheLastCommit) {
  const PowerCutFigures figures = RunPlain("pragma journal_mode=delete; pragma synchronous=full;");
  EXPECT_GT(figures.uLossy, 0U);
  EXPECT_EQ(figures.Faults(), figures.uLossy);
}

TEST(PowerCutTest, CutsShowThatUnsyncedWritesDamageFiles) {
  EXPECT_GT(RunPlain("pragma journal_mode=truncate; pragma synchronous=off;").uDamaged, 0U);
}

TEST(PowerCutTest, CutsDoNoHarmWhereSqlitePromisesIt) {
  EXPECT_EQ(RunPlain("pragma journal_mode=delete; pragma synchronous=extra;").Faults(), 0U);
  EXPECT_EQ(RunPlain("pragma journal_mode=wal; pragma synchronous=full;").Faults(), 0U);
}

TEST(PowerCutTest, TheSameSeedRepeatsARunToTheByte) {
  PowerCutOptions options{ComponentStore(2), 0, false, true, 5, 1};
  const PowerCutFigures first = CutPower(options);
  const PowerCutFigures second = CutPower(options);
  EXPECT_EQ(Describe(first), Describe(second));
  options.u64Seed = 100;
  EXPECT_NE(CutPower(options).u64Digest, first.u64Digest);
}
