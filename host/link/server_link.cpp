#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <utility>

#include "host/link/server_link_class.h"
#include "host/protocol/host_status.h"
#include "platform/log.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr std::string_view kAccepted = "success";
constexpr std::string_view kRefused = "fail";

}  // namespace

CServerLink::~CServerLink() {
  Stop();
  LogUninit(m_hLog);
}

bool CServerLink::Start(std::string& strError) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_phase != Phase::Stopped) {
      strError = "already started";
      return false;
    }
    m_phase = Phase::Running;
    m_counts.bUp = false;
    m_uAnswersLeft = kAnsweredPerOutage;
    m_bDownLogged = false;
    m_bRecurring = false;
    m_bUpLogDue = false;
    m_uDownReason = 0;
    m_downSince = std::chrono::steady_clock::now();
    m_counts.stateSince = m_downSince;
    m_strDownReason.clear();
    m_bAnnounceDue = false;
  }
  if (m_hLog == nullptr) {
    m_hLog = LogInit("qmhost");
  }
  m_bDriverStarted = RegisterWithRouter(strError) && m_resultQueue.Start(strError) && m_pDriver->Start(this, strError);
  if (!m_bDriverStarted) {
    Stop();
    return false;
  }
  LogPrint(m_hLog, kLogLifecycle, "server link started: %s", m_pDriver->Describe().c_str());
  return true;
}

bool CServerLink::RegisterWithRouter(std::string& strError) {
  GUID guid{};
  m_pContext = m_router.CreateContext();
  if (!m_pContext || !ParseGuid(kServerLinkGuidText, guid)) {
    strError = "no component context";
    return false;
  }
  const char* pszStep = "Initialize";
  uint32_t uStatus = m_pContext->Initialize(guid);
  if (uStatus == kHostOk) {
    m_pContext->SetRequestHandler(this);
    pszStep = "Receive";
    uStatus = m_pContext->Receive(AGENT_MSG_ASYNC_LOGCACHE, this, m_pContext.get());
  }
  if (uStatus != kHostOk) {
    std::array<char, 64> acText;
    snprintf(acText.data(), acText.size(), "the router refused %s: %x", pszStep, uStatus);
    strError = acText.data();
  }
  return uStatus == kHostOk;
}

void CServerLink::Stop() {
  {
    const std::lock_guard lock(m_mutex);
    if (m_phase != Phase::Running) {
      return;
    }
  }
  if (m_pContext) {
    m_pContext->UnReceive(AGENT_MSG_ASYNC_LOGCACHE);
  }
  {
    // From here on nothing new goes to the driver; what it still settles is answered.
    const std::lock_guard lock(m_mutex);
    m_phase = Phase::Stopping;
  }
  if (std::exchange(m_bDriverStarted, false)) {
    m_pDriver->Stop();
  }
  m_resultQueue.Stop();
  std::map<uint64_t, TrackedPtr> mapForgotten;
  {
    const std::lock_guard lock(m_mutex);
    m_phase = Phase::Stopped;
    m_counts.bUp = false;
    m_counts.stateSince = std::chrono::steady_clock::now();
    m_counts.u64HeldAtStop = std::exchange(m_counts.u64Held, 0);
    mapForgotten.swap(m_mapHeld);
  }
  if (m_pContext) {
    m_pContext->SetRequestHandler(nullptr);
    m_pContext->Uninitialize();
  }
}

void CServerLink::AnnounceIfUp() {
  {
    const std::lock_guard lock(m_mutex);
    if (m_phase != Phase::Running || !m_counts.bUp || m_bAnnounceDue) {
      return;
    }
  }
  Announce();
}

ServerLinkCounts CServerLink::GetCounts() const {
  const std::lock_guard lock(m_mutex);
  return m_counts;
}

void CServerLink::SetRunStart(uint32_t uStartSecond) {
  const std::lock_guard lock(m_mutex);
  m_u64FirstOfRun = static_cast<uint64_t>(uStartSecond) << 32;
}

std::string CServerLink::GetDownReason() const {
  const std::lock_guard lock(m_mutex);
  return m_strDownReason;
}

uint32_t CServerLink::HandleRequest(uint32_t uCode, std::string_view /*svRequest*/, std::string& strReply) {
  if (uCode != kRequestConnectState) {
    return kHostBadArgument;
  }
  const bool bUp = GetCounts().bUp;
  try {
    strReply = bUp ? R"({"onlineflag":"1"})" : R"({"onlineflag":"0"})";
  } catch (...) {
    return kHostNoMemory;
  }
  return kHostOk;
}

void CServerLink::ReceiveCallback(const GUID& stComponentID, long /*i64MsgType*/, const unsigned char* pData,
                                  unsigned int uiDataLength, void* pReplyHandle, void* /*pContext*/) {
  const COwnCode own;
  TrackedPtr pRecord;
  try {
    pRecord = std::make_shared<TrackedRecord>();
    if (pData != nullptr) {
      pRecord->strText.assign(reinterpret_cast<const char*>(pData), uiDataLength);
    }
  } catch (...) {
    (void)Reply(kHostSendTimeout, kRefused, pReplyHandle);
    const std::lock_guard lock(m_mutex);
    ++m_counts.u64Received;
    ++m_counts.u64Retried;
    return;
  }
  pRecord->sender = stComponentID;
  pRecord->i64ReceivedUs =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  if (!ParseTaggedText(pRecord->strText, pRecord->tags)) {
    (void)Reply(kHostBadText, kRefused, pReplyHandle);
    LogPrint(m_hLog, kLogWarning, "server link: a record of %u bytes cannot be read and was refused", uiDataLength);
    const std::lock_guard lock(m_mutex);
    ++m_counts.u64Received;
    ++m_counts.u64Rejected;
    ++m_counts.aRejected[kPriorityOther];
    return;
  }
  const uint32_t uStatus = Reply(kHostOk, kAccepted, pReplyHandle);
  if (uStatus != kHostOk) {
    // The sender has had another outcome for this send already. A result now would settle something else.
    LogPrint(m_hLog, kLogWarning, "server link: record %llx was not taken, its send has ended: %x",
             static_cast<unsigned long long>(pRecord->tags.u64DataId), uStatus);
    return;
  }
  Take(pRecord);
}

uint32_t CServerLink::Reply(uint32_t uStatus, std::string_view svText, void* pReplyHandle) {
  if (pReplyHandle == nullptr) {
    return kHostOk;
  }
  return m_pContext->Reply(static_cast<int32_t>(uStatus), AGENT_MSG_ASYNC_LOGCACHE, svText.data(),
                           static_cast<uint32_t>(svText.size()), pReplyHandle);
}

// The record is the link's now: it will be answered with one result.
void CServerLink::Take(const TrackedPtr& pRecord) {
  std::unique_lock lock(m_mutex);
  ++m_counts.u64Received;
  ++m_counts.u64Held;
  pRecord->u64Sequence = ++m_u64LastSequence;
  if (m_counts.bUp && m_phase == Phase::Running && !m_bPumping && !m_bAnnounceDue && m_mapHeld.empty()) {
    Pump(lock, pRecord);
    return;
  }
  // Nothing is held while an outage has answers left, so this record is the oldest.
  const bool bAnswer = !m_counts.bUp && m_phase == Phase::Running && m_uAnswersLeft > 0;
  if (bAnswer) {
    --m_uAnswersLeft;
  }
  if (bAnswer || !HoldLocked(pRecord)) {
    CountAnswerLocked(*pRecord, kHostSendTimeout);
    lock.unlock();
    SendResult(*pRecord, kHostSendTimeout);
    return;
  }
  Pump(lock, nullptr);
}

std::unique_ptr<IServerLink> CreateServerLink(IRouter& router, std::unique_ptr<ILinkDriver> pDriver) {
  return std::make_unique<CServerLink>(router, std::move(pDriver));
}
