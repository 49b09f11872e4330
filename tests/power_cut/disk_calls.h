// The calls by which this process changes files, seen from below SQLite, zlib and the component alike: open, close,
// write, pwrite, ftruncate, unlink, remove, rename, fsync and fdatasync are defined in the test executable, delegate to
// the real ones and tell a simulated disk. Nothing is ever really synced in this process: no test here outlives a real
// power cut.
//
// Until WatchDisk is called everything is plain delegation. Not for more than one thread.
#ifndef QMLOGCACHE_POWER_CUT_DISK_CALLS_H_
#define QMLOGCACHE_POWER_CUT_DISK_CALLS_H_

#include <cstdint>
#include <functional>
#include <string>

#include "tests/power_cut/simulated_disk.h"

// Every change in the directory goes to the disk from now on. At the u64LastCall-th call, 1 being the first, atLastCall
// runs and must not return: a change is under way by then and a sync is not. strDirectory is an absolute path without
// symbolic links and without a slash at its end.
void WatchDisk(const std::string& strDirectory, CSimulatedDisk& disk, uint64_t u64LastCall,
               std::function<void()> atLastCall);
// Changes and syncs in the directory so far.
uint64_t WatchedCalls();
// Back to plain delegation, for what is none of the program's own doing.
void StopWatching();

#endif  // QMLOGCACHE_POWER_CUT_DISK_CALLS_H_
