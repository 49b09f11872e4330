// The options that every benchmark program takes.
#ifndef QMLOGCACHE_BENCH_SUPPORT_BENCH_OPTIONS_H_
#define QMLOGCACHE_BENCH_SUPPORT_BENCH_OPTIONS_H_

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

struct BenchOptions {
  bool bQuick = false;
  int iRounds = 7;                   // 3 with --quick
  std::string strDirectory;          // where files go; empty: a fresh directory that is removed
  std::vector<std::string> vecOnly;  // groups to measure; empty: all
  bool IsWanted(const char* pszGroup) const;
};

// [--quick] [--rounds N] [--directory DIR] [GROUP...]; ends the program with status 2 where they cannot be understood.
// groups: what the program can measure.
BenchOptions ParseBenchOptions(int iArguments, char** ppszArguments, std::initializer_list<std::string_view> groups);

#endif  // QMLOGCACHE_BENCH_SUPPORT_BENCH_OPTIONS_H_
