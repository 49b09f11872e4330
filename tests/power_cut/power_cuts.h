// Runs a store, takes the power away at a random call, looks at what is left with plain SQLite, and lets a new process
// of the store go on with it; again and again.
#ifndef QMLOGCACHE_POWER_CUT_POWER_CUTS_H_
#define QMLOGCACHE_POWER_CUT_POWER_CUTS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tests/power_cut/record_stores.h"

struct PowerCutOptions {
  StoreFactory store;
  // Acknowledged commits that a cut may take from the end of a file, counted since the newest that is known to be on
  // the disk whatever the setting.
  size_t uMayLose = 0;
  // A file without its table gets it from the next call; else it would swallow every record to come.
  bool bTableComesLater = false;
  // Operator's shells and damaged files too; only for the component.
  bool bOperatorAndDamage = true;
  size_t uCuts = 0;
  uint64_t u64Seed = 0;
};

struct PowerCutFigures {
  size_t uCuts = 0;
  size_t uKills = 0;            // of the process alone, the disk going on
  uint64_t u64Calls = 0;        // that changed or synced something
  size_t uSteps = 0;            // acknowledged
  size_t uRecords = 0;          // acknowledged
  size_t uRecordsLost = 0;      // acknowledged, not deleted and gone; permitted ones too
  size_t uMostRecordsLost = 0;  // in one file
  size_t uMostCommitsLost = 0;  // acknowledged ones, in one file
  size_t uReturned = 0;         // files that came back as an earlier cut had not left them
  size_t uFilesChecked = 0;
  size_t uRecordsChecked = 0;
  size_t uBackupsChecked = 0;
  // What became of the steps under way.
  size_t uStepsWhole = 0;
  size_t uStepsPartly = 0;  // of several commits
  size_t uStepsGone = 0;
  // Faults.
  size_t uDamaged = 0;        // fails SQLite's check
  size_t uTableless = 0;      // see bTableComesLater
  size_t uLossy = 0;          // more lost than permitted
  size_t uMixed = 0;          // neither the newest nor any earlier state
  size_t uWithoutBackup = 0;  // a damaged file went and its backup is not whole
  size_t uRefused = 0;        // the store could not go on with what was left
  size_t uFirstFault = 0;     // the cut that showed the first; 0: none
  uint64_t u64FirstSeed = 0;
  std::vector<std::string> vecFaults;  // the first few, with what repeats them
  uint64_t u64Digest = 0;              // of every byte that was left; shared memory apart

  size_t Faults() const { return uDamaged + uTableless + uLossy + uMixed + uWithoutBackup + uRefused; }
};

PowerCutFigures CutPower(const PowerCutOptions& options);
std::string Describe(const PowerCutFigures& figures);

#endif  // QMLOGCACHE_POWER_CUT_POWER_CUTS_H_
