// What all groups of the storage benchmark share.
#ifndef QMLOGCACHE_BENCH_STORAGE_MEASURE_H_
#define QMLOGCACHE_BENCH_STORAGE_MEASURE_H_

#include <functional>
#include <vector>

#include "bench/support/result_line.h"

// The values of QmSetStorageSync.
inline constexpr int kSyncNormal = 1;
inline constexpr int kSyncFull = 2;

// What a write survives at that setting.
const char* DurabilityOfSync(int iSync);

// Seconds that the action takes.
double SecondsOf(const std::function<void()>& action);

// Runs every case once a round. Each round begins with the next one and every other runs backwards, so that none has a
// place or a predecessor of its own. A case throws when it cannot be measured.
using Case = std::function<void(int iRound)>;
void RunInTurn(int iRounds, const std::vector<Case>& vecCases);

// Throws std::runtime_error with the text and the number when iRet is not 0.
void Require(int iRet, const char* pszWhat);

#endif  // QMLOGCACHE_BENCH_STORAGE_MEASURE_H_
