// Counts the syncs of the whole process. The program's own fsync and fdatasync take the place of the C library's.
#ifndef QMLOGCACHE_BENCH_STORAGE_SYNC_COUNTER_H_
#define QMLOGCACHE_BENCH_STORAGE_SYNC_COUNTER_H_

struct SyncCount {
  long lFiles = 0;
  long lDirectories = 0;
};

// Since the process began. Any thread.
SyncCount SyncsSoFar();

#endif  // QMLOGCACHE_BENCH_STORAGE_SYNC_COUNTER_H_
