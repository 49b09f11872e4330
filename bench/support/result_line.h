// What every benchmark program prints: one JSON object a line on standard output, one line a figure and round.
#ifndef QMLOGCACHE_BENCH_SUPPORT_RESULT_LINE_H_
#define QMLOGCACHE_BENCH_SUPPORT_RESULT_LINE_H_

#include <cstdio>

// What a record survives that is counted in a figure.
inline constexpr char kInMemory[] = "memory";             // nothing
inline constexpr char kSurvivesProcess[] = "process";     // a kill of the process
inline constexpr char kSurvivesPowerCut[] = "power cut";  // that, and a power cut

struct ResultGroup {
  const char* pszGroup;
  const char* pszDurability;

  void Print(const char* pszCase, int iRound, const char* pszMetric, const char* pszUnit, double dValue) const {
    std::printf(
        "{\"group\":\"%s\",\"case\":\"%s\",\"round\":%d,\"metric\":\"%s\",\"unit\":\"%s\",\"value\":%.9g,"
        "\"durability\":\"%s\"}\n",
        pszGroup, pszCase, iRound, pszMetric, pszUnit, dValue, pszDurability);
    std::fflush(stdout);
  }
};

#endif  // QMLOGCACHE_BENCH_SUPPORT_RESULT_LINE_H_
