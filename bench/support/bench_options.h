// The options that every benchmark program takes.
#ifndef QMLOGCACHE_BENCH_SUPPORT_BENCH_OPTIONS_H_
#define QMLOGCACHE_BENCH_SUPPORT_BENCH_OPTIONS_H_

#include <string>
#include <vector>

struct BenchOptions {
  bool bQuick = false;
  int iRounds = 7;                   // 3 with --quick
  std::string strDirectory;          // where files go; empty: a fresh directory that is removed
  std::vector<std::string> vecOnly;  // groups to measure; empty: all
  bool IsWanted(const char* pszGroup) const;
};

// [--quick] [--rounds N] [--directory DIR] [GROUP...]; ends the program with status 2 where they cannot be understood.
BenchOptions ParseBenchOptions(int iArguments, char** ppszArguments);

#endif  // QMLOGCACHE_BENCH_SUPPORT_BENCH_OPTIONS_H_
