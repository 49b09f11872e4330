// Let tests see and set what the store and the manager keep to themselves. Guarded members are read and written under
// their lock.
#ifndef QMLOGCACHE_TESTS_SUPPORT_PEERS_H_
#define QMLOGCACHE_TESTS_SUPPORT_PEERS_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "manager/log_cache_mgr.h"
#include "platform/critical_section.h"
#include "platform/msg_queue.h"
#include "store/log_cache_data.h"

class CLogCacheDataPeer {
 public:
  explicit CLogCacheDataPeer(CLogCacheData& data) : m_data(data) {}

  void SetDataFlowFlag(uint32_t dwFlag) { m_data.m_dwDataFlowFlag = dwFlag; }
  void SetDataCountLimit(uint32_t dwLimit) { m_data.m_dwDataCountLimit = dwLimit; }
  void SetDataCoverFlag(uint32_t dwFlag) { m_data.m_dwDataCoverFlag = dwFlag; }
  uint32_t DataFlowFlag() const { return m_data.m_dwDataFlowFlag; }
  uint32_t DataCountLimit() const { return m_data.m_dwDataCountLimit; }
  uint32_t LocalDataCountLimit() const { return m_data.m_dwLocalDataCountLimit; }
  uint32_t DataCoverFlag() const { return m_data.m_dwDataCoverFlag; }
  std::string LogCachePath() const { return m_data.m_strLogCachePath.c_str(); }
  void* DataEvent() const { return m_data.m_hDataEvent; }

  // Keeps other threads out of the store's lock for as long as the action runs.
  void WithLock(const std::function<void()>& action) {
    CCriticalSectionGuard guard(m_data.m_csExecData);
    action();
  }

  size_t MapSize() {
    CCriticalSectionGuard guard(m_data.m_csExecData);
    return m_data.m_mapLogExecData.size();
  }
  size_t FileCount() {
    CCriticalSectionGuard guard(m_data.m_csExecData);
    return m_data.m_mapLogCacheFile.size();
  }
  unsigned long QueueCount(int iIndex) { return QmGetMsgCount(&m_data.m_ExecDataQueue[static_cast<size_t>(iIndex)]); }

  // The record as the map holds it, null when there is none. Valid while nobody can delete it.
  _LogExecData* Find(unsigned long long u64DataId) {
    CCriticalSectionGuard guard(m_data.m_csExecData);
    const auto it = m_data.m_mapLogExecData.find(u64DataId);
    return it == m_data.m_mapLogExecData.end() ? nullptr : it->second;
  }
  // All data ids, ascending, or those of the records with that save status.
  std::vector<unsigned long long> Ids(int iSaveStatus = -1) {
    CCriticalSectionGuard guard(m_data.m_csExecData);
    std::vector<unsigned long long> vecIds;
    for (const auto& [u64DataId, pExecData] : m_data.m_mapLogExecData) {
      if (iSaveStatus == -1 || pExecData->iDataSaveStatus == iSaveStatus) {
        vecIds.push_back(u64DataId);
      }
    }
    return vecIds;
  }
  // Data ids of the records marked for dropping, ascending.
  std::vector<unsigned long long> Marked() {
    CCriticalSectionGuard guard(m_data.m_csExecData);
    std::vector<unsigned long long> vecIds;
    for (const auto& [u64DataId, pExecData] : m_data.m_mapLogExecData) {
      if (pExecData->bIsDel != 0) {
        vecIds.push_back(u64DataId);
      }
    }
    return vecIds;
  }

 private:
  CLogCacheData& m_data;
};

class CLogCacheMgrPeer {
 public:
  using WorkState = CLogCacheMgr::WorkState;

  explicit CLogCacheMgrPeer(CLogCacheMgr& manager) : m_manager(manager) {}

  // The manager that is there, without making one.
  static CLogCacheMgr* Current() { return CLogCacheMgr::m_pThis.load(); }
  // Frees a manager that Close gave up.
  static void Destroy(CLogCacheMgr* pManager) { delete pManager; }

  CLogCacheData& Data() { return m_manager.m_LogCacheData; }
  LogCacheStatistics& Statistics() { return m_manager.m_stat; }

  // --- Steps of the two threads, called by the test in their place ---
  WorkState BeginWork() {
    WorkState state;
    state.uStopCount = m_manager.BeginThread(CLogCacheMgr::ThreadKind::Work);
    state.tStat = time(nullptr);
    state.tRepeat = time(nullptr);
    return state;
  }
  bool WorkStep(WorkState& state) { return m_manager.WorkStep(state); }
  unsigned int BeginTimer() { return m_manager.BeginThread(CLogCacheMgr::ThreadKind::Timer); }
  bool TimerStep(unsigned int uStopCount) { return m_manager.TimerStep(uStopCount); }
  void RequestStop() { m_manager.RequestThreadsToEnd(); }

  // --- Members ---
  IComponentContext* CompCtx() const { return m_manager.m_pCompCtx; }
  int WorkThreadStatus() {
    CCriticalSectionGuard guard(m_manager.m_csStatus);
    return m_manager.m_iWorkThreadStatus;
  }
  int TimerThreadStatus() {
    CCriticalSectionGuard guard(m_manager.m_csStatus);
    return m_manager.m_iTimerThreadStatus;
  }
  pthread_t WorkThreadId() {
    CCriticalSectionGuard guard(m_manager.m_csStatus);
    return m_manager.m_hThreadWorkId;
  }
  pthread_t TimerThreadId() {
    CCriticalSectionGuard guard(m_manager.m_csStatus);
    return m_manager.m_hThreadTimerId;
  }
  bool Connected() {
    CCriticalSectionGuard guard(m_manager.m_csStatus);
    return m_manager.m_bConnect;
  }
  void SetConnected(bool bConnected) {
    CCriticalSectionGuard guard(m_manager.m_csStatus);
    m_manager.m_bConnect = bConnected;
  }
  uint32_t StartTime() const { return m_manager.m_uStartTime; }
  uint32_t SequenceId() const { return m_manager.m_uSequenceId; }
  void SetSequenceId(uint32_t uSequenceId) { m_manager.m_uSequenceId = uSequenceId; }
  void* Event() const { return m_manager.m_hEvent; }
  long SendRefCount() const { return m_manager.m_lSendRefCount.load(); }
  void SetSendRefCount(long lCount) { m_manager.m_lSendRefCount = lCount; }
  int SendSingle() const { return m_manager.m_iSendSingle; }
  void SetSendSingle(int iSingle) { m_manager.m_iSendSingle = iSingle; }
  int SaveCacheFlag() const { return m_manager.m_iSaveCacheToDb; }
  void SetSaveCacheFlag(int iFlag) { m_manager.m_iSaveCacheToDb = iFlag; }
  long SendErrorCount() const { return m_manager.m_lSendErrorCount; }
  void SetSendErrorCount(long lCount) { m_manager.m_lSendErrorCount = lCount; }

 private:
  CLogCacheMgr& m_manager;
};

#endif  // QMLOGCACHE_TESTS_SUPPORT_PEERS_H_
