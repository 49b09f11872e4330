// The send gate: how many records may be in flight, single-send mode with its back-off, and the connection state.
#include <array>
#include <exception>

#include "manager/cancellation.h"
#include "manager/log_cache_mgr.h"
#include "manager/send_gate.h"
#include "platform/event.h"
#include "platform/json_parse.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr long kWindow = 128;
constexpr long kFailuresBeforeSave = 16;
constexpr uint32_t kConnectTimeoutMs = 60000;

struct BackOffBand {
  long lLastError;
  int iWaitSec;
};
// Uneven on purpose: narrow from 128 to 147, then ten minutes.
constexpr std::array<BackOffBand, 4> kBackOffBands = {{{127, 1}, {133, 3}, {138, 10}, {147, 60}}};
constexpr int kLongestBackOffSec = 600;

bool IsOnline(const CPString& strData) {
  qmtools::CPJsonParse parser;
  if (!parser.LoadBuffer(strData)) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache GetServerConnectStat Error LoadBuffer strData[%s]", strData.c_str());
    return false;
  }
  const qmtools::CPJsonParse::Node* pNode = parser.GetNode(nullptr, "onlineflag");
  if (pNode == nullptr) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache GetServerConnectStat Error GetNode onlineflag strData[%s]",
             strData.c_str());
    return false;
  }
  const CPString strFlag = parser.GetValue(pNode);
  const bool bStatus = strFlag == CPString("1");
  LogPrint(g_hLog, kLogNormal, "qmlogcache GetServerConnectStat bStatus[%d] strFlag[%s] strData[%s]", bStatus ? 1 : 0,
           strFlag.c_str(), strData.c_str());
  return bStatus;
}

}  // namespace

int BackOffSeconds(long lErrorCount) {
  if (lErrorCount <= kFailuresBeforeSave) {
    return 0;
  }
  for (const BackOffBand& band : kBackOffBands) {
    if (lErrorCount <= band.lLastError) {
      return band.iWaitSec;
    }
  }
  return kLongestBackOffSec;
}

long CLogCacheMgr::AddSendRef() {
  return m_lSendRefCount.fetch_add(1) + 1;
}

long CLogCacheMgr::SubSendRef() {
  return m_lSendRefCount.fetch_sub(1) - 1;
}

void CLogCacheMgr::SetSendSingleFlag(int bSingle) {
  if (bSingle != 0) {
    m_lSendErrorCount.Add(1);
  } else if (m_lSendErrorCount != 0) {
    m_lSendErrorCount = 0;
  }
  if (bSingle != m_iSendSingle) {
    m_iSendSingle = bSingle;
  }
  if (m_hEvent != nullptr) {
    QmSetEvent(m_hEvent);
  }
}

bool CLogCacheMgr::IsAllowSend(int& iWaitSec) {
  const long lRef = m_lSendRefCount.load();
  if (m_iSendSingle == 0) {
    if (m_iSaveCacheToDb != 0) {
      m_iSaveCacheToDb = 0;
    }
    if (lRef >= kWindow) {
      return false;
    }
    iWaitSec = 0;
    return true;
  }
  const long lErrorCount = m_lSendErrorCount;
  if (lErrorCount <= kFailuresBeforeSave) {
    if (lRef >= 1) {
      return false;
    }
    iWaitSec = 0;
    m_iSaveCacheToDb = 0;
    return true;
  }
  if (m_iSaveCacheToDb == 0) {
    m_iSaveCacheToDb = 1;
    SaveCacheToDb();
  }
  if (lRef >= 1) {
    return false;
  }
  iWaitSec = BackOffSeconds(lErrorCount);
  return true;
}

void CLogCacheMgr::BroadcastConnect() {
  SetSendSingleFlag(0);
  CCriticalSectionGuard guard(m_csStatus);
  m_bConnect = true;
}

bool CLogCacheMgr::GetServerConnectStat() {
  IComponentContext* pCompCtx = m_pCompCtx;
  void* pReply = nullptr;
  uint32_t uiLength = 0;
  uint32_t uStatus = kStatusNoReplyYet;
  auto uRet = static_cast<uint32_t>(kStatusNoObject);
  bool bStatus = false;
  if (pCompCtx != nullptr) {
    const CCancellationWindow window;
    uRet = pCompCtx->AgentGetConnect(&ServerLinkGuid(), kRequestConnectState, "", 0, &uStatus, &pReply, &uiLength,
                                     kConnectTimeoutMs);
  }
  if (uRet != 0 || uStatus != 0) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache GetServerConnectStat Error AgentGetConnect iRet[%x]",
             uRet != 0 ? uRet : uStatus);
  } else if (uiLength == 0 || pReply == nullptr) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache GetServerConnectStat Error AgentGetConnect uiLength[%u] pReply[%p]",
             uiLength, pReply);
  } else {
    try {
      bStatus = IsOnline(CPString(static_cast<const char*>(pReply), uiLength));
    } catch (const std::exception&) {
      // No memory for the reply's text: not known to be online, asked again in a minute.
      bStatus = false;
    }
  }
  if (pCompCtx != nullptr && pReply != nullptr) {
    static_cast<void>(pCompCtx->FreeReply(pReply));
  }
  return bStatus;
}
