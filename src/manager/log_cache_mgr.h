// The cache manager: a process-wide singleton that owns the record store and the component's two threads, and through
// which every record passes in three steps: intake (AddExecData), dispatch (RunExecData), settlement (ResultExecData).
//
// Life. Instance makes the manager, Close destroys it, again and again in one process. Only the host's entries call
// Instance; callbacks reach the manager through a CCallbackScope, from the end of Init on.
// Close first bars callbacks, then waits up to ten seconds for callbacks and threads that are inside; if one never
// comes out the manager is given up without being freed.
//
// Threads. The host's thread: lifecycle. Callback threads of the router: AddExecData, ResultExecData, BroadcastConnect,
// several at a time. Work thread "logcachework": the connection query, the gate, dispatch, statistics, sweep. Timer
// thread "logcachetimer": reload. Both threads run with cancellation disabled but for the two context calls that may
// block.
//
// Locks. m_csStatus and m_csDataId are held for single reads and writes, never around a call; the one exception is
// pthread_create, and pthread_cancel with its log line, under m_csStatus, so that a thread's id is valid whenever it can
// be read.
// m_csSettlement is held from the lookup of a result's record to the end of its action, so that of two results for one
// record the second finds none; it comes before the store's lock and every other.
// The gate's flags are relaxed atomics: callbacks write them, the work thread reads them, and a stale value is
// corrected within 100 ms, because every change sets the event.
#ifndef QMLOGCACHE_MANAGER_LOG_CACHE_MGR_H_
#define QMLOGCACHE_MANAGER_LOG_CACHE_MGR_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string_view>
#include <vector>

#include "manager/statistics.h"
#include "platform/critical_section.h"
#include "platform/relaxed_atomic.h"
#include "plugin/compctx/component_context.h"
#include "store/log_cache_data.h"

class CLogCacheMgr {
 public:
  // --- Life: lifecycle.cpp ---
  // The manager, made if there is none; null when it cannot be allocated. For the host's entries only.
  static CLogCacheMgr* Instance();
  // Destroys the manager, if there is one.
  static void Close();
  [[nodiscard]] bool Init();
  // pContext: an IComponentContext*, the host's.
  void SetCtx(void* pContext);
  [[nodiscard]] bool Start();
  // Saves pending records, ends both threads within about 60 seconds. Always true.
  bool Stop();
  int SaveCacheToDb();

  // --- Thread bodies: threads.cpp ---
  static void* WorkThread(void* pArgument);
  static void* TimerThread(void* pArgument);

  // --- Send gate and connection state: send_gate.cpp ---
  // Both return the number of records in flight after the change.
  long AddSendRef();
  long SubSendRef();
  // One result came in: bSingle 1 enters single-send mode and counts a failure, 0 leaves it.
  void SetSendSingleFlag(int bSingle);
  // Whether a record may be sent now; iWaitSec, the seconds to wait first, is written only when the result is true.
  [[nodiscard]] bool IsAllowSend(int& iWaitSec);
  void BroadcastConnect();
  // Asks the server link whether the agent is online. Blocks up to 60 seconds.
  [[nodiscard]] bool GetServerConnectStat();

  // --- Statistics: statistics.cpp ---
  void PrintfStat();

  // --- Intake: intake.cpp ---
  [[nodiscard]] unsigned long long GetDataId();
  // Files a record; svData is copied once, into the tagged text. iDataSaveStatus: kSavePending, or kSaveNever for
  // memory only. 0 or the store's error.
  [[nodiscard]] int AddExecData(long i64MsgType, int iPriv, int iMsgType, int iDataSaveStatus,
                                const CPString& strPluginId, const CPString& strProduct, const CPString& strCombo,
                                std::string_view svData);

  // --- Dispatch: dispatch.cpp ---
  // Sends a record that the caller holds. 1 when the router took it, else 0 (and the record is gone).
  [[nodiscard]] int RunExecData(_LogExecData* pExecData);

  // --- Settlement: settlement.cpp ---
  // One outcome of one send. ui64ACT: the send's token, for the log. 0 or the error of the lookup or the action.
  [[nodiscard]] int ResultExecData(unsigned long long u64DataId, uint32_t dwResult, unsigned long ui64ACT)
      QM_EXCLUDES(m_csSettlement);

 private:
  friend class CLogCacheMgrPeer;  // tests

  // What a thread of this manager is doing.
  enum ThreadStatus : int { kThreadStopped = 0, kThreadRunning = 1, kThreadEnded = 2 };

  // What the work loop carries from one step to the next.
  struct WorkState {
    unsigned int uStopCount = 0;  // of the time the thread began
    time_t tStat = 0;
    time_t tRepeat = 0;
    int iConnTick = 30;
  };

  // Counts a thread out of the manager, also when it is unwound by a cancellation.
  class CThreadScope;

  CLogCacheMgr();
  ~CLogCacheMgr();
  CLogCacheMgr(const CLogCacheMgr&) = delete;
  CLogCacheMgr& operator=(const CLogCacheMgr&) = delete;

  // lifecycle.cpp
  enum class ThreadKind { Work, Timer };
  int& StatusOf(ThreadKind kind) QM_REQUIRES(m_csStatus);
  pthread_t& IdOf(ThreadKind kind) QM_REQUIRES(m_csStatus);
  std::vector<pthread_t>& AliveOf(ThreadKind kind) QM_REQUIRES(m_csStatus);
  // The result of pthread_create; hCreated is 0 when it failed.
  int CreateThread(ThreadKind kind, void* (*pfnBody)(void*), pthread_t& hCreated);
  void RequestThreadsToEnd();
  // Out of its loop, every thread of the kind; or out of the manager altogether.
  [[nodiscard]] bool HasThreadEnded(ThreadKind kind);
  [[nodiscard]] bool IsThreadGone(ThreadKind kind);
  void WaitForThreadsToEnd();
  void CancelThreads(ThreadKind kind, const char* pszFormat);
  void OpenToCallbacks();
  void WakeThreads();
  [[nodiscard]] bool WaitUntilUnused();
  // The two callback objects belong to a higher floor; only lifecycle.cpp knows them.
  static IMRReceiveComplete* Receiver();
  static IMRSendComplete* SendCompletion();

  // threads.cpp
  static CLogCacheMgr* ManagerOfThread(const void* pArgument);
  // Marks the calling thread as running, unless a stop was asked for before it began; gives the stop count of this
  // moment.
  unsigned int BeginThread(ThreadKind kind);
  // The calling thread has left its loop: shows in its status, if it is the last of its kind.
  void MarkThreadEnded(ThreadKind kind);
  // The calling thread will not touch the manager any more.
  void EndThread(ThreadKind kind);
  [[nodiscard]] bool IsThreadWanted(ThreadKind kind, unsigned int uStopCount);
  // The same, and whether the agent is connected, with one lock.
  struct WorkOutlook {
    bool bWanted;
    bool bConnected;
  };
  [[nodiscard]] WorkOutlook LookAhead(unsigned int uStopCount);
  template <typename Step>
  bool RunStep(const Step& step);
  // One turn of the work loop; false when the thread is to end.
  [[nodiscard]] bool WorkStep(WorkState& state);
  void StepUnconnected(WorkState& state);
  // One reload and the pause after it; false when the thread is to end.
  [[nodiscard]] bool TimerStep(unsigned int uStopCount);
  void RunPeriodicWork(WorkState& state);
  void WaitForEvent(unsigned int uMilliseconds);

  // intake.cpp
  void CountIntake(int iPriv, int iMsgType, bool bCombo);

  static std::atomic<CLogCacheMgr*> m_pThis;

  std::atomic<IComponentContext*> m_pCompCtx{nullptr};
  CLogCacheData m_LogCacheData;
  int m_iWorkThreadStatus QM_GUARDED_BY(m_csStatus) = kThreadStopped;
  pthread_t m_hThreadWorkId QM_GUARDED_BY(m_csStatus) = 0;  // the one created last; 0 after Stop
  int m_iTimerThreadStatus QM_GUARDED_BY(m_csStatus) = kThreadStopped;
  pthread_t m_hThreadTimerId QM_GUARDED_BY(m_csStatus) = 0;
  // Threads created and not yet gone. A status becomes kThreadEnded with the last of its kind.
  std::vector<pthread_t> m_vecWorkThreadsAlive QM_GUARDED_BY(m_csStatus);
  std::vector<pthread_t> m_vecTimerThreadsAlive QM_GUARDED_BY(m_csStatus);
  // A stop that comes before a thread has begun must not be overwritten by the thread's own "running", and a thread
  // that outlived a stop must not go on with the next start.
  bool m_bStopRequested QM_GUARDED_BY(m_csStatus) = false;
  unsigned int m_uStopCount QM_GUARDED_BY(m_csStatus) = 0;
  QmCriticalSection m_csDataId;
  QmCriticalSection m_csStatus;
  QmCriticalSection m_csSettlement;           // one result is settled at a time
  CRelaxedAtomic<uint32_t> m_uStartTime;      // seconds since the epoch; changed under m_csDataId, printed without it
  CRelaxedAtomic<uint32_t> m_uSequenceId{0};  // the same
  bool m_bConnect QM_GUARDED_BY(m_csStatus) = false;  // the agent is known to be connected; never reset
  void* m_hEvent;                                     // wakes the work thread when the gate's state changes
  std::atomic<long> m_lSendRefCount{0};               // records sent and not yet settled
  CRelaxedAtomic<int> m_iSendSingle{0};
  CRelaxedAtomic<int> m_iSaveCacheToDb{0};  // the store was flushed in this stretch of failures
  CRelaxedAtomic<long> m_lSendErrorCount{0};
  LogCacheStatistics m_stat;
};

#endif  // QMLOGCACHE_MANAGER_LOG_CACHE_MGR_H_
