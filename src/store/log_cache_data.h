// The record store: every record in memory by data id, and a queue entry for each that waits to be sent.
//
// Road of a record: filed (map and queue) -> taken (map only, StartTime set) -> settled (gone), or queued again.
//
// Who may free a record. Results come late, doubled, out of order, for records still queued, or while the work thread
// is sending the very record. So nobody frees a record: everybody who can reach one holds a reference, and the last
// reference frees it.
//   - The map holds one, from AddExecDataMap to erasure. Erasing marks it so.
//   - A queue entry holds one. The queued mark makes sure that a record has at most one entry: queueing it again while it
//     stands in its queue changes its counters and nothing else. An entry whose record is erased is dropped when it is
//     met.
//   - A thread that works on a record outside the lock holds one: AddDataAction and InsertExecData while they file, the
//     taker of GetExecData and the settler of FindExecData through their ExecDataHold.
// A pointer found in the map may be used without a reference only while m_csExecData is held.
//
// Who may write a record to its file. The thread that claimed it, with the writing mark: intake without the store's lock,
// a re-queue or a save under it. A save passes over a record whose own write is under way, since its row would clash with
// that one and fail the other rows of its batch; an intake that meets a save waits for its end and then looks whether
// anything is left to write.
//
// What a load must not bring back. It reads the files without the store's lock, so a record may be settled between the
// reading of its row and its filing. While a load runs, the ids of deleted records are kept, and none of them is filed.
// A record settled while its intake writes its row goes, with the row and whatever a load made of it, when that is done.
//
// Locks: m_csExecData guards the maps. Public operations take it and call their ...Locked twins; a twin never takes it
// again. It may be held while a cache file's lock is taken, never the reverse. The queues are used without it.
//
// Threads: callback threads file and settle, the work thread takes and deletes, the timer thread loads, the host's
// thread saves at stop. Errors: 32-bit codes of platform/status_codes.h.
#ifndef QMLOGCACHE_STORE_LOG_CACHE_DATA_H_
#define QMLOGCACHE_STORE_LOG_CACHE_DATA_H_

#include <absl/container/btree_map.h>

#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <unordered_set>

#include "cachefile/log_cache_file.h"
#include "monitor/log_cache_mon.h"
#include "platform/cpstring.h"
#include "platform/critical_section.h"
#include "platform/msg_queue.h"
#include "store/log_exec_data.h"

// How a record reaches the disk, as configured.
enum DataFlowFlag : uint32_t {
  kFlowWriteAtIntake = 0,  // and any value but the other two
  kFlowWriteAtSave = 1,    // at stop, when sends keep failing, or when the record is queued again
  kFlowMemoryOnly = 2,     // never
};

// Position of a record's queue, from its priority code. A negative code, which reception refuses, goes to the low queue.
int QueueIndexOfPriority(int iPriv);

struct ExecDataRelease {
  void operator()(_LogExecData* pExecData) const;
};
// A reference to a record that its holder may read without a lock. The record itself stays the store's.
using ExecDataHold = std::unique_ptr<_LogExecData, ExecDataRelease>;

class CLogCacheData {
 public:
  CLogCacheData();
  // Frees every record and every file object and forgets what is queued; writes nothing to disk. Nobody may hold a
  // record any more.
  ~CLogCacheData();
  CLogCacheData(const CLogCacheData&) = delete;
  CLogCacheData& operator=(const CLogCacheData&) = delete;

  // --- Configuration and persistence: persistence_bridge.cpp ---
  // Reads the configuration. False when that was not possible. Before callbacks and threads.
  [[nodiscard]] bool InitCacheData();
  // The sender's file object, made on first use and kept until the store goes; null when there is no memory for it.
  // Touches no disk.
  CLogCacheFile* GetLogCacheFile(const CPString& strPluginId);
  // Writes every pending record to its cache file, in batches and without space checks, or one by one where a batch finds
  // no memory; a level-3 line counts what stays pending. Always 1. Holds the store's
  // lock throughout.
  int SaveCacheToDb();
  // Files what is on disk and not in memory; 1, or 0 when the scan failed.
  int LoadExecData();
  // Destroys every file object; the files stay. No record may point at one any more.
  void CleanLogCacheFile();

  // --- Actions on records ---
  // Files a new record under u64DataId and queues it. 0, kStatusCountLimit, kStatusNoResource.
  [[nodiscard]] int AddDataAction(int bForceSave, unsigned long long u64DataId, int iPriv, int iMsgType,
                                  int iDataSaveStatus, const CPString& strPluginId, const CPString& strProduct,
                                  const CPString& strCombo, const CPString& strData);
  // Takes a record out of memory and out of its cache file. 0, kStatusUnknownDataId, or the file's error (the record
  // has left memory all the same).
  [[nodiscard]] int DeleteDataAction(unsigned long long u64DataId);
  // Queues a record again after a failed send. 0, kStatusUnknownDataId, kStatusNoResource (then the record is gone).
  [[nodiscard]] int ReAddDataAction(unsigned long long u64DataId);
  // Queues every record again that was taken four hours ago or more and never settled.
  void RepeatExecDataMap();

  // --- Filing and taking ---
  // Takes over the caller's reference. 0 (also for a duplicate id, which frees the record), kStatusNoObject,
  // kStatusNoResource.
  [[nodiscard]] int InsertExecData(_LogExecData* pExecData, int bSave);
  // The next record by priority; null after about five seconds without one, or after WakeTaker.
  ExecDataHold GetExecData();
  // Ends a wait of GetExecData early.
  void WakeTaker();
  // kStatusCountLimit when there are more records than allowed, else 0. One over the limit is meant: the test comes
  // before the record that it is made for.
  [[nodiscard]] int CheckExecDataLimit();
  // Marks the oldest record that is not marked yet; the work thread deletes it when it takes it. As fast with many marked
  // records as with none.
  void DelFirLineFromExecData();
  // "mapLogCacheFile[%u] mapLogExecData[%u] LowQueueData[%lu] ...": sizes of the maps and queues.
  CPString GetDataStat();

  // --- Map primitives ---
  // Copies the record's fields, without bIsDel and pLogCacheFile, and strData only when bCopyData is set.
  [[nodiscard]] int GetExecDataFromMap(unsigned long long u64DataId, int bCopyData, _LogExecData& out);
  // The record itself, null when there is none under that id, and what may change of it as it was at that moment.
  struct ChangingFields {
    uint32_t dwStartTime = 0;
    uint32_t dwReSendCount = 0;
    int iDataSaveStatus = 0;
  };
  ExecDataHold FindExecData(unsigned long long u64DataId, ChangingFields& fields);
  bool IsDataIdExist(unsigned long long u64DataId);
  // Adds a reference for the map. A record already there under that id is replaced.
  [[nodiscard]] int AddExecDataMap(_LogExecData* pExecData);
  [[nodiscard]] int DeleteExecDataMap(unsigned long long u64DataId);
  void CleanExecDataMap();
  // Queues again by id, as ReAddDataAction.
  [[nodiscard]] int ReInsertExecData(unsigned long long u64DataId);
  // Writes one pending record to its cache file. 0 also when there is nothing to write; otherwise kStatusNoObject
  // without a file, a space check's code, kStatusNoResource or the file's error, and the record stays pending.
  [[nodiscard]] int AddCacheData(_LogExecData* pExecData) QM_EXCLUDES(m_csExecData);

 private:
  friend class CLogCacheDataPeer;  // tests

  static constexpr int kQueueCount = 4;

  // A load runs while it lives.
  class CLoad {
   public:
    explicit CLoad(CLogCacheData& data);
    ~CLoad();
    CLoad(const CLoad&) = delete;
    CLoad& operator=(const CLoad&) = delete;

   private:
    CLogCacheData& m_data;
  };

  using LogCacheFileMap = std::map<CPString, std::unique_ptr<CLogCacheFile>>;  // by sender

  [[nodiscard]] int CheckExecDataLimitLocked() QM_REQUIRES(m_csExecData);
  void DelFirLineFromExecDataLocked() QM_REQUIRES(m_csExecData);
  // The sender's entry, made on first use; null when there is no memory for it.
  const LogCacheFileMap::value_type* GetSenderLocked(const CPString& strPluginId) QM_REQUIRES(m_csExecData);
  // Puts a new record into the map. Nothing when it is there now; else the result of its filing: 0 when its id is there
  // already or was settled while a load runs, kStatusNoResource without memory.
  [[nodiscard]] std::optional<int> FileExecDataLocked(_LogExecData* pExecData) QM_REQUIRES(m_csExecData);
  // Writes a filed record if bSave is set, and queues it.
  [[nodiscard]] int SaveAndQueueExecData(_LogExecData* pExecData, int bSave) QM_EXCLUDES(m_csExecData);
  [[nodiscard]] int AddExecDataMapLocked(_LogExecData* pExecData) QM_REQUIRES(m_csExecData);
  [[nodiscard]] int DeleteExecDataMapLocked(unsigned long long u64DataId) QM_REQUIRES(m_csExecData);
  // A load that runs now will not file the record.
  void RememberDeletedLocked(unsigned long long u64DataId) QM_REQUIRES(m_csExecData);
  [[nodiscard]] int ReInsertExecDataLocked(_LogExecData* pExecData) QM_REQUIRES(m_csExecData);
  [[nodiscard]] int AddCacheDataLocked(_LogExecData* pExecData) QM_REQUIRES(m_csExecData);
  // The write itself, by the thread that claimed the record. Changes no status.
  [[nodiscard]] int WriteCacheData(const _LogExecData& data);
  // Takes the record's row out of its file.
  [[nodiscard]] static int DeleteCacheData(const _LogExecData& data);
  // Files what a scan read; the list is empty afterwards or holds what is over the limit.
  void FileCacheData(std::list<_CacheExecData>& cacheDataList);
  // Gives the record a queue entry if it has none and sets the event. False when the queue refuses it.
  [[nodiscard]] bool QueueExecData(_LogExecData* pExecData);
  // The first record that is still wanted, from the highest queue down; null when all are empty.
  _LogExecData* TakeFromQueues();
  void ForgetQueuedData();

  // Set by InitCacheData, before callbacks and threads; relaxed, since a host may call in another order.
  CRelaxedAtomic<uint32_t> m_dwDataFlowFlag{kFlowWriteAtIntake};
  CRelaxedAtomic<uint32_t> m_dwDataCountLimit{500000};
  CRelaxedAtomic<uint32_t> m_dwLocalDataCountLimit{100000};
  CRelaxedAtomic<uint32_t> m_dwDataCoverFlag{0};
  CPString m_strLogCachePath;  // set by InitCacheData
  CLogCacheMon m_LogCacheMon;
  void* m_hDataEvent;                                   // set each time a record is queued
  std::array<QmMsgQueue, kQueueCount> m_ExecDataQueue;  // 0 low, 1 normal, 2 high, 3 real-time
  QmCriticalSection m_csExecData;
  // A b-tree: a third of a red-black tree's memory, and less of it touched. Insertion and erasure move its entries, so an
  // iterator outlives neither.
  absl::btree_map<unsigned long long, _LogExecData*> m_mapLogExecData QM_GUARDED_BY(m_csExecData);
  // No record below this id waits to be marked by the count limit.
  unsigned long long m_u64FirstUnmarked QM_GUARDED_BY(m_csExecData) = 0;
  LogCacheFileMap m_mapLogCacheFile QM_GUARDED_BY(m_csExecData);
  unsigned int m_uLoads QM_GUARDED_BY(m_csExecData) = 0;  // that run now
  std::unordered_set<unsigned long long> m_setDeletedInLoad QM_GUARDED_BY(m_csExecData);
};

#endif  // QMLOGCACHE_STORE_LOG_CACHE_DATA_H_
