// The component's two log channels. Opened and closed by the plug-in object; null while closed.
#ifndef QMLOGCACHE_PLATFORM_LOG_CHANNELS_H_
#define QMLOGCACHE_PLATFORM_LOG_CHANNELS_H_

#include <atomic>

#include "platform/log.h"

// Sequentially consistent: a late callback counts itself in and then reads a handle, Uninitialize clears the handle and
// then looks whether a callback is inside.
extern std::atomic<void*> g_hLog;       // "qmlogcache": everything that is not said to go elsewhere
extern std::atomic<void*> g_hLogError;  // "qmlogcacheerror": error lines of the data path that hold a record's data

#endif  // QMLOGCACHE_PLATFORM_LOG_CHANNELS_H_
