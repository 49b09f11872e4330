// The bodies of the work thread and the timer thread. Each only loops over a step.
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

#include "manager/cancellation.h"
#include "manager/log_cache_mgr.h"
#include "platform/event.h"
#include "platform/log_channels.h"

namespace {
constexpr int kConnectTicks = 59;
constexpr time_t kStatisticsSeconds = 600;
constexpr time_t kSweepSeconds = 3600;
constexpr int kReloadSeconds = 300;
constexpr unsigned int kGateWaitMilliseconds = 100;
constexpr unsigned int kBackOffStepMilliseconds = 1000;
}  // namespace

// Runs for every thread that CreateThread counted in, also when the thread is unwound by a cancellation.
class CLogCacheMgr::CThreadScope {
 public:
  CThreadScope(CLogCacheMgr& manager, ThreadKind kind) : m_manager(manager), m_kind(kind) {}
  ~CThreadScope() { m_manager.EndThread(m_kind); }
  CThreadScope(const CThreadScope&) = delete;
  CThreadScope& operator=(const CThreadScope&) = delete;

 private:
  CLogCacheMgr& m_manager;
  ThreadKind m_kind;
};

// A thread that comes so late that its manager was given up, and perhaps another made, belongs to none.
CLogCacheMgr* CLogCacheMgr::ManagerOfThread(const void* pArgument) {
  CLogCacheMgr* pThis = m_pThis.load();
  return pArgument == nullptr || pArgument == pThis ? pThis : nullptr;
}

// Want of memory in a step must not end the process; the next step tries again. Only std::exception is caught, so that a
// cancellation unwinds as it should.
template <typename Step>
bool CLogCacheMgr::RunStep(const Step& step) {
  try {
    return step();
  } catch (const std::exception& error) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache CLogCacheMgr::RunStep Error what[%s]", error.what());
    sleep(1);
    return true;
  }
}

unsigned int CLogCacheMgr::BeginThread(ThreadKind kind) {
  CCriticalSectionGuard guard(m_csStatus);
  if (!m_bStopRequested) {
    StatusOf(kind) = kThreadRunning;
  }
  return m_uStopCount;
}

void CLogCacheMgr::MarkThreadEnded(ThreadKind kind) {
  CCriticalSectionGuard guard(m_csStatus);
  if (AliveOf(kind).size() <= 1) {
    StatusOf(kind) = kThreadEnded;
  }
}

void CLogCacheMgr::EndThread(ThreadKind kind) {
  CCriticalSectionGuard guard(m_csStatus);
  std::vector<pthread_t>& vecAlive = AliveOf(kind);
  vecAlive.erase(std::remove(vecAlive.begin(), vecAlive.end(), pthread_self()), vecAlive.end());
  if (vecAlive.empty()) {
    StatusOf(kind) = kThreadEnded;
  }
}

bool CLogCacheMgr::IsThreadWanted(ThreadKind kind, unsigned int uStopCount) {
  CCriticalSectionGuard guard(m_csStatus);
  return StatusOf(kind) == kThreadRunning && m_uStopCount == uStopCount;
}

CLogCacheMgr::WorkOutlook CLogCacheMgr::LookAhead(unsigned int uStopCount) {
  CCriticalSectionGuard guard(m_csStatus);
  return {m_iWorkThreadStatus == kThreadRunning && m_uStopCount == uStopCount, m_bConnect};
}

void* CLogCacheMgr::WorkThread(void* pArgument) {
  DisableCancellation();
  pthread_detach(pthread_self());
  prctl(PR_SET_NAME, "logcachework");
  CLogCacheMgr* pThis = ManagerOfThread(pArgument);
  if (pThis == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCacheMgr::WorkThread pThis is NULL");
    return nullptr;
  }
  const CThreadScope scope(*pThis, ThreadKind::Work);
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::WorkThread Begin");
  WorkState state;
  state.uStopCount = pThis->BeginThread(ThreadKind::Work);
  state.tStat = time(nullptr);
  state.tRepeat = time(nullptr);
  while (pThis->RunStep([&] { return pThis->WorkStep(state); })) {
  }
  pThis->MarkThreadEnded(ThreadKind::Work);
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::WorkThread End");
  return nullptr;
}

void* CLogCacheMgr::TimerThread(void* pArgument) {
  DisableCancellation();
  pthread_detach(pthread_self());
  prctl(PR_SET_NAME, "logcachetimer");
  CLogCacheMgr* pThis = ManagerOfThread(pArgument);
  if (pThis == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCacheMgr::TimerThread pThis is NULL");
    return nullptr;
  }
  const CThreadScope scope(*pThis, ThreadKind::Timer);
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::TimerThread Begin");
  const unsigned int uStopCount = pThis->BeginThread(ThreadKind::Timer);
  while (pThis->RunStep([&] { return pThis->TimerStep(uStopCount); })) {
  }
  pThis->MarkThreadEnded(ThreadKind::Timer);
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::TimerThread End");
  return nullptr;
}

bool CLogCacheMgr::TimerStep(unsigned int uStopCount) {
  m_LogCacheData.LoadExecData();
  for (int i = 0; i < kReloadSeconds; ++i) {
    if (!IsThreadWanted(ThreadKind::Timer, uStopCount)) {
      return false;
    }
    sleep(1);
  }
  return IsThreadWanted(ThreadKind::Timer, uStopCount);
}

bool CLogCacheMgr::WorkStep(WorkState& state) {
  const WorkOutlook outlook = LookAhead(state.uStopCount);
  if (!outlook.bWanted) {
    return false;
  }
  if (!outlook.bConnected) {
    StepUnconnected(state);
    return true;
  }
  RunPeriodicWork(state);

  int iWaitSec = 0;
  if (!IsAllowSend(iWaitSec)) {
    WaitForEvent(kGateWaitMilliseconds);
    return true;
  }
  // An event shortens a step of the back-off, not the number of steps.
  for (int i = 0; i < iWaitSec; ++i) {
    WaitForEvent(kBackOffStepMilliseconds);
    if (!IsThreadWanted(ThreadKind::Work, state.uStopCount)) {
      return false;
    }
  }

  // The hold keeps the record readable whatever a result for it does meanwhile.
  const ExecDataHold hold = m_LogCacheData.GetExecData();
  if (hold == nullptr) {
    return true;
  }
  if (hold->bIsDel == 0) {
    static_cast<void>(RunExecData(hold.get()));  // it has logged, and settled what was refused
    return true;
  }
  LogPrint(g_hLog, kLogNormal,
           "qmlogcache CLogCacheMgr::WorkThread bIsDel is TRUE u64DataId[%llx] strPluginId[%s] strProduct[%s] "
           "strCombo[%s]",
           hold->u64DataId, hold->strPluginId.c_str(), hold->strProduct.c_str(), hold->strCombo.c_str());
  static_cast<void>(m_LogCacheData.DeleteDataAction(hold->u64DataId));  // gone either way
  return true;
}

void CLogCacheMgr::StepUnconnected(WorkState& state) {
  sleep(1);
  if (state.iConnTick <= kConnectTicks) {
    ++state.iConnTick;
    return;
  }
  state.iConnTick = 0;
  if (!GetServerConnectStat()) {
    LogPrintStr(g_hLog, kLogNormal, "qmlogcache agent is not connected to the server");
    return;
  }
  {
    CCriticalSectionGuard guard(m_csStatus);
    m_bConnect = true;
  }
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::WorkThread connect server OK");
}

void CLogCacheMgr::RunPeriodicWork(WorkState& state) {
  const time_t tNow = time(nullptr);
  if (state.tStat > tNow) {
    state.tStat = tNow;  // the clock was set back
  } else if (tNow >= state.tStat + kStatisticsSeconds) {
    PrintfStat();
    state.tStat = tNow;
  }
  if (state.tRepeat > tNow) {
    state.tRepeat = tNow;
  } else if (tNow >= state.tRepeat + kSweepSeconds) {
    m_LogCacheData.RepeatExecDataMap();
    state.tRepeat = tNow;
  }
}

void CLogCacheMgr::WaitForEvent(unsigned int uMilliseconds) {
  if (m_hEvent != nullptr) {
    QmWaitEventTimeout(m_hEvent, uMilliseconds);
  } else if (uMilliseconds >= kBackOffStepMilliseconds) {
    sleep(uMilliseconds / 1000);
  } else {
    usleep(uMilliseconds * 1000);
  }
}
