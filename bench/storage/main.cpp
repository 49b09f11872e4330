// What the component's storage costs beside bare SQLite: single records, several senders, save, load and drain. The
// groups stand in groups.h.
//
// Usage: storage_bench [--quick] [--rounds N] [--directory DIR] [GROUP...]
#include <cstdio>
#include <exception>

#include "bench/storage/groups.h"

int main(int iArguments, char** ppszArguments) {
  try {
    const BenchOptions options = ParseBenchOptions(iArguments, ppszArguments);
    struct Group {
      const char* pszName;
      void (*pfnRun)(const BenchOptions& options);
    };
    constexpr Group kGroups[] = {{"storage_insert", RunInserts},  {"storage_insert_delete", RunInsertsAndDeletes},
                                 {"storage_senders", RunSenders}, {"storage_save", RunSave},
                                 {"storage_load", RunLoad},       {"storage_drain", RunDrain}};
    for (const Group& group : kGroups) {
      if (options.IsWanted(group.pszName)) {
        std::fprintf(stderr, "%s\n", group.pszName);
        group.pfnRun(options);
      }
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", ppszArguments[0], error.what());
    return 1;
  }
}
