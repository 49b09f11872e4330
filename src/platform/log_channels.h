// The component's two log channels. Opened and closed by the plug-in object; null while closed.
#ifndef QMLOGCACHE_PLATFORM_LOG_CHANNELS_H_
#define QMLOGCACHE_PLATFORM_LOG_CHANNELS_H_

#include "platform/log.h"
#include "platform/relaxed_atomic.h"

// Relaxed atomics: a late callback may read a handle while Uninitialize clears it, and a handle never dangles.
extern CRelaxedAtomic<void*> g_hLog;       // "qmlogcache": everything that is not said to go elsewhere
extern CRelaxedAtomic<void*> g_hLogError;  // "qmlogcacheerror": error lines of the data path that hold a record's data

#endif  // QMLOGCACHE_PLATFORM_LOG_CHANNELS_H_
