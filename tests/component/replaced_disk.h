// The free space that a host shows: the executable defines statvfs. Every operation may be called from any thread.
#ifndef QMLOGCACHE_TESTS_COMPONENT_REPLACED_DISK_H_
#define QMLOGCACHE_TESTS_COMPONENT_REPLACED_DISK_H_

#include <cstdint>

class CReplacedDisk {
 public:
  // The real file system again.
  static void Reset();
  // Every file system has that many bytes free, for the superuser alone: nothing is available to anybody else. A
  // multiple of 512, the size of its fragments.
  static void ShowFree(uint64_t u64Bytes);
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_REPLACED_DISK_H_
