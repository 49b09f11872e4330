#include "plugin/plugin_object.h"

#include "manager/callback_scope.h"
#include "manager/log_cache_mgr.h"
#include "platform/log_channels.h"

int g_iPluginStatus = kPluginLoaded;

namespace {

// Takes the handles away first: a callback that is inside may still hold one, a later one finds none. When a callback
// never comes out, the channels stay open for it.
void CloseChannels() {
  constexpr auto kLongest = std::chrono::seconds(1);
  void* hLog = g_hLog.exchange(nullptr);
  void* hLogError = g_hLogError.exchange(nullptr);
  if (!CCallbackScope::WaitUntilOutside(std::chrono::steady_clock::now() + kLongest)) {
    return;
  }
  if (hLog != nullptr) {
    LogUninit(hLog);
  }
  if (hLogError != nullptr) {
    LogUninit(hLogError);
  }
}

}  // namespace

const _PluginObjFuncTable& CLogCachePluginObj::Entries() {
  static constexpr _PluginObjFuncTable kEntries = {Initialize, Uninitialize, Start,  Stop,
                                                   GetStatus,  GetCtx,       SetCtx, Info};
  return kEntries;
}

int CLogCachePluginObj::Initialize(void* pInitParam) {
  g_hLog = LogInit("qmlogcache");
  g_hLogError = LogInit("qmlogcacheerror");
  if (pInitParam == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::Initialize Error pInitParam is NULL");
    return -1;
  }
  LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::Initialize Begin");
  CLogCacheMgr* pLogCacheMgr = CLogCacheMgr::Instance();
  if (pLogCacheMgr == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::Initialize Error pLogCacheMgr is NULL");
  } else if (pLogCacheMgr->Init()) {
    LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::Initialize End Init OK");
  } else {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::Initialize Error Init Error");
  }
  g_iPluginStatus = kPluginInitialized;
  return 0;
}

int CLogCachePluginObj::Uninitialize() {
  LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::Uninitialize Begin");
  CLogCacheMgr::Close();
  g_iPluginStatus = kPluginUninitialized;
  LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::Uninitialize End");
  CloseChannels();
  return 0;
}

int CLogCachePluginObj::Start() {
  LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::Start Begin 202412231723");
  CLogCacheMgr* pLogMgr = CLogCacheMgr::Instance();
  if (pLogMgr == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::Start Error pLogMgr is NULL");
  } else if (pLogMgr->Start()) {
    LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::Start End Start OK");
  } else {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::Start Error Start Error");
  }
  g_iPluginStatus = kPluginStarted;
  return 0;
}

int CLogCachePluginObj::Stop() {
  LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::Stop Begin");
  CLogCacheMgr* pLogMgr = CLogCacheMgr::Instance();
  if (pLogMgr == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::Stop Error pLogMgr is NULL");
  } else if (pLogMgr->Stop()) {
    LogPrintStr(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::Stop End Stop OK");
  } else {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::Stop Error Stop Error");
  }
  g_iPluginStatus = kPluginStopped;
  return 0;
}

int CLogCachePluginObj::GetStatus() {
  return g_iPluginStatus;
}

int CLogCachePluginObj::GetCtx(void* /*pData*/) {
  return 0;
}

int CLogCachePluginObj::SetCtx(void* pData) {
  if (pData == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::SetCtx Error pData is NULL");
    return 0;
  }
  LogPrint(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::SetCtx Begin pData[%p]", pData);
  CLogCacheMgr* pLogMgr = CLogCacheMgr::Instance();
  if (pLogMgr == nullptr) {
    LogPrintStr(g_hLog, kLogMissing, "**qmlogcache CLogCachePluginObj::SetCtx Error pLogMgr is NULL");
    return 0;
  }
  pLogMgr->SetCtx(pData);
  LogPrint(g_hLog, kLogLifecycle, "qmlogcache CLogCachePluginObj::SetCtx End pData[%p]", pData);
  return 0;
}

int CLogCachePluginObj::Info(void* pData) {
  return pData != nullptr ? 0 : -1;
}
