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
  // Marks that threads set and clear one by one.
  class CMarks {
   public:
    enum Mark : uint8_t {
      kQueued = 1,   // a queue entry stands for the record
      kErased = 2,   // no longer in the map: to be forgotten, not sent
      kWriting = 4,  // a thread is writing it to its cache file
    };
    bool Has(Mark mark) const { return (m_uMarks.load(std::memory_order_acquire) & mark) != 0; }
    // True when it was set before. As orderly as a lock: what was written before a mark was cleared is seen by whoever
    // sets it next.
    bool Set(Mark mark) { return (m_uMarks.fetch_or(mark, std::memory_order_acq_rel) & mark) != 0; }
    void Clear(Mark mark) { m_uMarks.fetch_and(static_cast<uint8_t>(~mark), std::memory_order_release); }

   private:
    std::atomic<uint8_t> m_uMarks{0};
  };

  CRelaxedAtomic<int> bIsDel{0};            // 1: dropped by the count limit, to be deleted instead of sent
  CRelaxedAtomic<uint32_t> StartTime{0};    // seconds since the epoch when it was last taken; 0: queued, not yet taken
  CRelaxedAtomic<uint32_t> ReSendCount{0};  // how often it was queued again after a failed or lost send
  int iReserved = -1;
  unsigned long long u64Reserved = 0;
  unsigned long long u64DataId = 0;
  int iPriv = 0;     // 0 low, 1 normal, 2 high, 3 real-time; 10 added for public data
  int iMsgType = 0;  // 1 server (EDR), 2 plug-in (EPP), 3 cloud tag
  CRelaxedAtomic<int> iDataSaveStatus{kSavePending};
  // Lifetime, kept by the store (see log_cache_data.h): one reference for the map, one for a queue entry, one for each
  // thread that works on the record. Here, where they fill a gap.
  std::atomic<uint16_t> uRefs{1};
  CMarks marks;
  CPString strPluginId;  // GUID text of the sender; the bytes are shared by all its records
  CPString strProduct;
  CPString strCombo;
  CPString strData;                        // the tagged text that is sent
  CLogCacheFile* pLogCacheFile = nullptr;  // the sender's cache file; owned by the store
};
// With the allocator's own eight bytes this fills its class of 96. Half a million records may be held.
static_assert(sizeof(_LogExecData) <= 88);

#endif  // QMLOGCACHE_STORE_LOG_EXEC_DATA_H_
