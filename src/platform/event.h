// Named-object style events of the base library. Handles are opaque; every function may be called from any thread.
#ifndef QMLOGCACHE_PLATFORM_EVENT_H_
#define QMLOGCACHE_PLATFORM_EVENT_H_

extern "C" {
// bManualReset 0: a successful wait clears the event. pszName and pReserved are not used (pass null). Null on failure.
void* QmCreateEvent(int bManualReset, int bInitialState, const char* pszName, void* pReserved);
// 0 for success. Setting a set event changes nothing.
int QmSetEvent(void* hEvent);
// 0 for success. No thread may be waiting on the event.
int QmDestroyEvent(void* hEvent);
// Waits at most dwMilliseconds (monotonic clock). 0 when the event was signalled, non-zero at time-out or for a null
// handle.
int QmWaitEventTimeout(void* hEvent, unsigned int dwMilliseconds);
}

#endif  // QMLOGCACHE_PLATFORM_EVENT_H_
