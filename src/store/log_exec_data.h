// One record in memory.
#ifndef QMLOGCACHE_STORE_LOG_EXEC_DATA_H_
#define QMLOGCACHE_STORE_LOG_EXEC_DATA_H_

#include <atomic>
#include <cstdint>

#include "platform/cpstring.h"
#include "platform/relaxed_atomic.h"

class CLogCacheFile;

// Whether a record belongs in its sender's cache file.
enum DataSaveStatus : int {
  kSaveNever = 0,    // memory only
  kSavePending = 1,  // to be written
  kSaveDone = 2,     // written to its cache file
};

// Fields that change after the record was filed are relaxed atomics: the thread that sends a record reads them without
// the store's lock. Everything else is set before the record is filed and never changes.
struct _LogExecData {
  CRelaxedAtomic<int> bIsDel{0};            // 1: dropped by the count limit, to be deleted instead of sent
  CRelaxedAtomic<uint32_t> StartTime{0};    // seconds since the epoch when it was last taken; 0: queued, not yet taken
  CRelaxedAtomic<uint32_t> ReSendCount{0};  // how often it was queued again after a failed or lost send
  int iReserved = -1;
  unsigned long long u64Reserved = 0;
  unsigned long long u64DataId = 0;
  int iPriv = 0;     // 0 low, 1 normal, 2 high, 3 real-time; 10 added for public data
  int iMsgType = 0;  // 1 server (EDR), 2 plug-in (EPP), 3 cloud tag
  CRelaxedAtomic<int> iDataSaveStatus{kSavePending};
  CPString strPluginId;  // GUID text of the sender
  CPString strProduct;
  CPString strCombo;
  CPString strData;                        // the tagged text that is sent
  CLogCacheFile* pLogCacheFile = nullptr;  // the sender's cache file; owned by the store

  // Lifetime, kept by the store (see log_cache_data.h): one reference for the map, one for a queue entry, one for each
  // thread that works on the record.
  std::atomic<uint32_t> uRefs{1};
  std::atomic<bool> bQueued{false};  // a queue entry stands for it
  std::atomic<bool> bErased{false};  // no longer in the map: to be forgotten, not sent

  std::atomic<bool> bWriting{false};  // a thread is writing it to its cache file
};

#endif  // QMLOGCACHE_STORE_LOG_EXEC_DATA_H_
