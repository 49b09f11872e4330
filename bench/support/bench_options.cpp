#include "bench/support/bench_options.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void Usage(const char* pszProgram) {
  std::fprintf(stderr, "Usage: %s [--quick] [--rounds N] [--directory DIR] [GROUP...]\n", pszProgram);
  std::exit(2);
}

}  // namespace

bool BenchOptions::IsWanted(const char* pszGroup) const {
  return vecOnly.empty() || std::find(vecOnly.begin(), vecOnly.end(), pszGroup) != vecOnly.end();
}

BenchOptions ParseBenchOptions(int iArguments, char** ppszArguments, std::initializer_list<std::string_view> groups) {
  constexpr int kQuickRounds = 3;
  constexpr int kMostRounds = 1000;
  BenchOptions options;
  int iRounds = 0;
  for (int i = 1; i < iArguments; ++i) {
    const std::string_view svArgument = ppszArguments[i];
    const bool bHasValue = i + 1 < iArguments;
    if (svArgument == "--quick") {
      options.bQuick = true;
    } else if (svArgument == "--rounds" && bHasValue) {
      const std::string_view svValue = ppszArguments[++i];
      const auto parsed = std::from_chars(svValue.data(), svValue.data() + svValue.size(), iRounds);
      if (parsed.ptr != svValue.data() + svValue.size() || iRounds < 1 || iRounds > kMostRounds) {
        Usage(ppszArguments[0]);
      }
    } else if (svArgument == "--directory" && bHasValue) {
      options.strDirectory = ppszArguments[++i];
    } else if (std::find(groups.begin(), groups.end(), svArgument) != groups.end()) {
      options.vecOnly.emplace_back(svArgument);
    } else {
      Usage(ppszArguments[0]);
    }
  }
  if (iRounds != 0) {
    options.iRounds = iRounds;
  } else if (options.bQuick) {
    options.iRounds = kQuickRounds;
  }
  return options;
}
