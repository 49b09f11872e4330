// Construction, start, stop and destruction of the manager. The only file of this folder that knows the callback
// objects.
#include <unistd.h>

#include <cerrno>
#include <new>
#include <thread>

#include "manager/callback_scope.h"
#include "manager/log_cache_mgr.h"
#include "message/receive.h"
#include "message/send_completion.h"
#include "platform/event.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "plugin/compctx/message_types.h"

namespace {
constexpr int kStopPasses = 200;
constexpr unsigned int kStopPassMicroseconds = 300000;
}  // namespace

std::atomic<CLogCacheMgr*> CLogCacheMgr::m_pThis{nullptr};

IMRReceiveComplete* CLogCacheMgr::Receiver() {
  return &CLogCacheReceive::m_gReceive;
}
IMRSendComplete* CLogCacheMgr::SendCompletion() {
  return &CLogCacheSend::m_LogCacheSend;
}

CLogCacheMgr::CLogCacheMgr()
    : m_uStartTime(static_cast<uint32_t>(time(nullptr))), m_hEvent(QmCreateEvent(0, 0, nullptr, nullptr)) {
  QmInitializeCriticalSection(&m_csDataId);
  QmInitializeCriticalSection(&m_csStatus);
  QmInitializeCriticalSection(&m_csSettlement);
}

CLogCacheMgr::~CLogCacheMgr() {
  if (m_hEvent != nullptr) {
    QmSetEvent(m_hEvent);
    QmDestroyEvent(m_hEvent);
    m_hEvent = nullptr;
  }
  QmDeleteCriticalSection(&m_csSettlement);
  QmDeleteCriticalSection(&m_csStatus);
  QmDeleteCriticalSection(&m_csDataId);
}

CLogCacheMgr* CLogCacheMgr::Instance() {
  CLogCacheMgr* pThis = m_pThis.load();
  if (pThis == nullptr) {
    try {
      pThis = new (std::nothrow) CLogCacheMgr;
    } catch (const std::bad_alloc&) {
      pThis = nullptr;  // a member found no memory
    }
    m_pThis.store(pThis);
  }
  return pThis;
}

void CLogCacheMgr::Close() {
  CLogCacheMgr* pThis = m_pThis.load();
  if (pThis == nullptr) {
    return;
  }
  CCallbackScope::SetManager(nullptr);
  pThis->RequestThreadsToEnd();
  const bool bUnused = pThis->WaitUntilUnused();
  m_pThis.store(nullptr);
  if (bUnused) {
    delete pThis;
  } else {
    // Whoever is inside may come back at any time; the memory is the lesser loss.
    LogPrintStr(g_hLog, kLogMissing,
                "**qmlogcache CLogCacheMgr::Close Error a thread or callback is still inside, the manager is given up");
  }
}

bool CLogCacheMgr::WaitUntilUnused() {
  constexpr auto kLookAgain = std::chrono::milliseconds(1);
  const auto deadline = CCallbackScope::LongestWait();
  while (!IsThreadGone(ThreadKind::Work) || !IsThreadGone(ThreadKind::Timer)) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    WakeThreads();
    std::this_thread::sleep_for(kLookAgain);
  }
  return CCallbackScope::WaitUntilOutside(deadline);
}

// Not before Init: a late callback of an earlier life must not meet a store that is being configured.
void CLogCacheMgr::OpenToCallbacks() {
  CCallbackScope::SetManager(this);
}

bool CLogCacheMgr::Init() {
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::Init Begin");
  const bool bInitialized = m_LogCacheData.InitCacheData();
  OpenToCallbacks();
  if (!bInitialized) {
    LogPrintStr(g_hLog, kLogWarning, "*qmlogcache CLogCacheMgr::Init Error InitCacheData Error");
    return false;
  }
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::Init End");
  return true;
}

void CLogCacheMgr::SetCtx(void* pContext) {
  m_pCompCtx = static_cast<IComponentContext*>(pContext);
  LogPrint(g_hLog, kLogLifecycle, "qmlogcache CLogCacheMgr::SetCtx m_pCompCtx[%p]", pContext);
}

bool CLogCacheMgr::Start() {
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::Start Begin");
  OpenToCallbacks();  // also for a host that did without Init
  IComponentContext* pCompCtx = m_pCompCtx;
  if (pCompCtx == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCacheMgr::Start Error m_pCompCtx is NULL");
    return false;
  }
  GUID guid{};
  static_cast<void>(ParseGuid(kComponentGuidText, guid));  // a constant of the right form
  const uint32_t uInitialized = pCompCtx->Initialize(guid);
  if (uInitialized != 0) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache CLogCacheMgr::Start Warn Initialize iRet[%x]", uInitialized);
  }
  for (const NamedMessageType& type : kReceivedTypes) {
    const uint32_t uRet = pCompCtx->Receive(type.uType, Receiver(), pCompCtx);
    if (uRet != 0) {
      LogPrint(g_hLog, kLogWarning, "*qmlogcache CLogCacheMgr::Start Warn Receive %s iRet[%x]", type.pszName, uRet);
    }
  }
  LogPrint(g_hLog, kLogNormal,
           "qmlogcache CLogCacheMgr::Start LOGCACHE_MSG_SYNC_SERVER_BASE[%x] LOGCACHE_MSG_SYNC_PLUGIN_BASE[%x] "
           "LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA[%x] LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA[%x] "
           "AGENT_MSG_BROADCAST_CONNECT[%x]",
           LOGCACHE_MSG_SYNC_SERVER_BASE, LOGCACHE_MSG_SYNC_PLUGIN_BASE, LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA,
           LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA, AGENT_MSG_BROADCAST_CONNECT);

  pthread_t hWork = 0;
  const int iWork = CreateThread(ThreadKind::Work, WorkThread, hWork);
  LogPrint(g_hLog, kLogLifecycle,
           "qmlogcache CLogCacheMgr::Start pthread_create WorkThread iThreadRet[%d] m_hThreadWorkId[%lu]", iWork,
           hWork);
  pthread_t hTimer = 0;
  const int iTimer = CreateThread(ThreadKind::Timer, TimerThread, hTimer);
  LogPrint(g_hLog, kLogLifecycle,
           "qmlogcache CLogCacheMgr::Start pthread_create TimerThread iThreadTimerRet[%d] m_hThreadTimerId[%lu]",
           iTimer, hTimer);
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::Start End");
  return true;
}

int CLogCacheMgr::CreateThread(ThreadKind kind, void* (*pfnBody)(void*), pthread_t& hCreated) {
  // The lock is held around pthread_create: the thread waits for it in its first step, so it cannot end before its id
  // is stored, and a stored id always names a living thread.
  CCriticalSectionGuard guard(m_csStatus);
  m_bStopRequested = false;
  if (StatusOf(kind) == kThreadEnded) {
    StatusOf(kind) = kThreadStopped;
  }
  hCreated = 0;
  try {
    AliveOf(kind).reserve(AliveOf(kind).size() + 1);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  const int iRet = pthread_create(&hCreated, nullptr, pfnBody, this);
  if (iRet != 0) {
    hCreated = 0;
    return iRet;
  }
  IdOf(kind) = hCreated;
  AliveOf(kind).push_back(hCreated);
  return 0;
}

bool CLogCacheMgr::Stop() {
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::Stop Begin");
  IComponentContext* pCompCtx = m_pCompCtx;
  if (pCompCtx != nullptr) {
    for (const NamedMessageType& type : kReceivedTypes) {
      static_cast<void>(pCompCtx->UnReceive(type.uType));
    }
    // No reception begins any more; one that is inside files its record before the save.
    if (!CCallbackScope::WaitUntilOutside(CallbackKind::Receive, CCallbackScope::LongestWait())) {
      LogPrintStr(g_hLog, kLogWarning,
                  "*qmlogcache CLogCacheMgr::Stop Warn a reception is still inside, its record misses the save");
    }
  }
  SaveCacheToDb();
  RequestThreadsToEnd();
  WaitForThreadsToEnd();
  if (pCompCtx != nullptr) {
    static_cast<void>(pCompCtx->Uninitialize());
  }
  LogPrintStr(g_hLog, kLogNormal, "qmlogcache CLogCacheMgr::Stop End");
  return true;
}

void CLogCacheMgr::RequestThreadsToEnd() {
  {
    CCriticalSectionGuard guard(m_csStatus);
    m_bStopRequested = true;
    ++m_uStopCount;
    for (const ThreadKind kind : {ThreadKind::Work, ThreadKind::Timer}) {
      if (StatusOf(kind) != kThreadEnded) {
        StatusOf(kind) = kThreadStopped;
      }
    }
  }
  WakeThreads();
}

void CLogCacheMgr::WaitForThreadsToEnd() {
  for (int i = 0; i < kStopPasses; ++i) {
    if (HasThreadEnded(ThreadKind::Work) && HasThreadEnded(ThreadKind::Timer)) {
      break;
    }
    WakeThreads();  // each pass: a started pair may wait on one event more than once
    usleep(kStopPassMicroseconds);
  }
  CancelThreads(ThreadKind::Work, "*qmlogcache CLogCacheMgr::Stop thread need kill work threadid[%lu]");
  CancelThreads(ThreadKind::Timer, "*qmlogcache CLogCacheMgr::Stop thread need kill timer threadid[%lu]");
}

bool CLogCacheMgr::HasThreadEnded(ThreadKind kind) {
  CCriticalSectionGuard guard(m_csStatus);
  return StatusOf(kind) == kThreadEnded || AliveOf(kind).empty();
}

bool CLogCacheMgr::IsThreadGone(ThreadKind kind) {
  CCriticalSectionGuard guard(m_csStatus);
  return AliveOf(kind).empty();
}

void CLogCacheMgr::CancelThreads(ThreadKind kind, const char* pszFormat) {
  CCriticalSectionGuard guard(m_csStatus);
  IdOf(kind) = 0;
  if (StatusOf(kind) == kThreadEnded) {
    return;
  }
  for (const pthread_t hThreadId : AliveOf(kind)) {
    LogPrint(g_hLog, kLogWarning, pszFormat, hThreadId);
    // Under the lock the thread cannot end, so its id still names it. It is unwound only at a window of its own, which
    // it never opens while it holds a lock.
    pthread_cancel(hThreadId);
  }
}

void CLogCacheMgr::WakeThreads() {
  if (m_hEvent != nullptr) {
    QmSetEvent(m_hEvent);
  }
  m_LogCacheData.WakeTaker();
}

int CLogCacheMgr::SaveCacheToDb() {
  LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCacheMgr::SaveCacheToDb Begin");
  const int bStatus = m_LogCacheData.SaveCacheToDb();
  LogPrint(g_hLog, kLogLifecycle, "qmlogcache CLogCacheMgr::SaveCacheToDb End bStatus[%d]", bStatus);
  return bStatus;
}

int& CLogCacheMgr::StatusOf(ThreadKind kind) {
  return kind == ThreadKind::Work ? m_iWorkThreadStatus : m_iTimerThreadStatus;
}

pthread_t& CLogCacheMgr::IdOf(ThreadKind kind) {
  return kind == ThreadKind::Work ? m_hThreadWorkId : m_hThreadTimerId;
}

std::vector<pthread_t>& CLogCacheMgr::AliveOf(ThreadKind kind) {
  return kind == ThreadKind::Work ? m_vecWorkThreadsAlive : m_vecTimerThreadsAlive;
}
