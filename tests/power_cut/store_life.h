// One life of the store's process, from its start to a kill or a power cut.
#ifndef QMLOGCACHE_POWER_CUT_STORE_LIFE_H_
#define QMLOGCACHE_POWER_CUT_STORE_LIFE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tests/power_cut/record_stores.h"
#include "tests/power_cut/workload.h"

enum class End { PowerCut, Kill };

struct Life {
  std::vector<Step> vecSteps;
  End end = End::PowerCut;
  uint64_t u64LastCall = 0;  // the end comes at this call, or after the last step
};

// Paths end in no slash.
struct LifePlace {
  std::string strDirectory;  // the files as the process finds them
  bool bDiskGoesOn = false;  // the process before was killed: what it had not synced still is not
  std::string strSavedDisk;  // where a killed process leaves the disk to the next one
  std::string strTarget;     // an empty directory for what is left by a power cut
  uint64_t u64Seed = 0;      // of the disk that is found, and of SQLite's own random numbers
};

struct LifeReport {
  size_t uAcknowledged = 0;  // steps
  uint64_t u64Calls = 0;     // that changed or synced something
  bool bEnded = false;       // by the power cut or the kill, as it should
  std::string strProblem;    // why not
};

// Runs in a process of its own, so that nothing that the store remembers outlives it.
LifeReport RunLife(const Life& life, const LifePlace& place, const StoreFactory& store,
                   const std::vector<FileState>& vecStates);

#endif  // QMLOGCACHE_POWER_CUT_STORE_LIFE_H_
