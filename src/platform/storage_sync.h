// How durable a database write is when it returns. Set once by the host before it starts a plug-in.
#ifndef QMLOGCACHE_PLATFORM_STORAGE_SYNC_H_
#define QMLOGCACHE_PLATFORM_STORAGE_SYNC_H_

extern "C" {
// 2 (default): survives a power cut. 1: survives a killed process; a power cut leaves the file intact without its
// newest records. Any other value is refused: non-zero, the setting stays.
int QmSetStorageSync(int iSync);
int QmGetStorageSync(void);
}

#endif  // QMLOGCACHE_PLATFORM_STORAGE_SYNC_H_
