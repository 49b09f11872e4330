// What the component's storage costs beside bare SQLite: single records, several senders, save, load and drain. The
// groups stand in groups.h.
//
// Usage: storage_bench [--quick] [--rounds N] [--directory DIR] [GROUP...]
#include <linux/magic.h>
#include <sqlite3.h>
#include <sys/vfs.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "bench/storage/groups.h"

namespace {

// In memory nothing survives a power cut, whatever is synced.
void RequireDisk(const std::string& strDirectory) {
  const std::string strWhere = strDirectory.empty() ? std::filesystem::temp_directory_path().string() : strDirectory;
  struct statfs information {};
  if (statfs(strWhere.c_str(), &information) == 0 &&
      (information.f_type == TMPFS_MAGIC || information.f_type == RAMFS_MAGIC)) {
    throw std::runtime_error(strWhere + " is in memory; --directory names one on a disk");
  }
}

}  // namespace

int main(int iArguments, char** ppszArguments) {
  try {
    const BenchOptions options = ParseBenchOptions(iArguments, ppszArguments,
                                                   {"storage_insert", "storage_insert_delete", "storage_senders",
                                                    "storage_save", "storage_load", "storage_drain"});
    RequireDisk(options.strDirectory);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);  // as the host does
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
