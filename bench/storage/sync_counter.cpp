#include "bench/storage/sync_counter.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace {

std::atomic<long> g_lFileSyncs{0};
std::atomic<long> g_lDirectorySyncs{0};

void CountSync(int iFile) {
  struct stat info {};
  if (fstat(iFile, &info) == 0 && S_ISDIR(info.st_mode)) {
    ++g_lDirectorySyncs;
  } else {
    ++g_lFileSyncs;
  }
}

}  // namespace

SyncCount SyncsSoFar() {
  return {g_lFileSyncs, g_lDirectorySyncs};
}

// SQLite reaches these through ordinary dynamic symbols.
extern "C" [[gnu::visibility("default")]] int fsync(int iFile) {
  static const auto pfnNext = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  CountSync(iFile);
  return pfnNext(iFile);
}
extern "C" [[gnu::visibility("default")]] int fdatasync(int iFile) {
  static const auto pfnNext = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"));
  CountSync(iFile);
  return pfnNext(iFile);
}
