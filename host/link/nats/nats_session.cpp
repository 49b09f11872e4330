#include "host/link/nats/nats_session.h"

#include <nats/nats.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "host/link/nats/nats_names.h"
#include "host/link/nats/nats_stream.h"
#include "host/link/nats/socket_watch.h"

namespace {

using Clock = std::chrono::steady_clock;
using OptionsHandle = std::unique_ptr<natsOptions, decltype(&natsOptions_Destroy)>;
using StreamHandle = std::unique_ptr<jsStreamInfo, decltype(&jsStreamInfo_Destroy)>;

// How long libnats may wait for a connection to take more bytes.
constexpr int64_t kWriteDeadlineMs = 3000;
constexpr int64_t kAfterWatchMs = 500;
// A connection on which nothing answers is given up after twice that.
constexpr int64_t kPingIntervalMs = 20000;
// libnats would wait beyond it; the driver's own bound is far below.
constexpr int64_t kLibraryPending = 1 << 20;
// Of a message's headers: the line before them, their names, the line breaks.
constexpr size_t kHeaderBytes = sizeof("NATS/1.0\r\nNats-Msg-Id: \r\nNats-Expected-Stream: \r\n\r\n") - 1;

// What libnats says about its last error on this thread, without the place in its sources: "(conn.c:1905): ".
std::string LastDetail() {
  const char* pszDetail = nats_GetLastError(nullptr);
  std::string strDetail = pszDetail != nullptr ? pszDetail : "";
  const size_t uPlaceEnd = strDetail.find("): ");
  return strDetail.rfind('(', 0) == 0 && uPlaceEnd != std::string::npos ? strDetail.substr(uPlaceEnd + 3) : strDetail;
}

// Of a URL without a user that ends in its port.
std::string HostOf(const std::string& strUrl) {
  const size_t uBegin = strUrl.find("://") + 3;
  return strUrl.substr(uBegin, strUrl.rfind(':') - uBegin);
}

uint16_t PortOf(const std::string& strUrl) {
  return static_cast<uint16_t>(std::strtoul(strUrl.c_str() + strUrl.rfind(':') + 1, nullptr, 10));
}

std::string LastError(natsStatus status) {
  const std::string strText = natsStatus_GetText(status);
  const std::string strDetail = LastDetail();
  return strDetail.empty() || strDetail == strText ? strText : strText + ": " + strDetail;
}

}  // namespace

// What libnats' threads and the session's share.
struct CNatsSession::Shared {
  Shared(std::function<void()> wakeNow, std::string strStreamNow)
      : wake(std::move(wakeNow)), strStream(std::move(strStreamNow)) {}

  void File(natsMsg* pMsg, const jsPubAck* pAck, const jsPubAckErr* pError) noexcept;
  void Lose(const char* pszReason) noexcept;

  const std::function<void()> wake;
  const std::string strStream;  // whose acknowledgements count
  std::mutex mutex;             // guards all below
  std::list<NatsPublished> lstPending;
  std::unordered_map<natsMsg*, std::list<NatsPublished>::iterator> mapPending;
  size_t uPendingBytes = 0;
  std::list<NatsPublished> lstAnswered;
  bool bLost = false;
  std::string strLostReason;
};

namespace {

// The sessions that callbacks may find. It is never taken down: libnats' threads may outlive everything else.
template <typename TShared>
class CRegistry {
 public:
  static CRegistry& Get() {
    static auto* s_pRegistry = new CRegistry;
    return *s_pRegistry;
  }
  void* Add(const std::shared_ptr<TShared>& pShared) {
    const std::lock_guard lock(m_mutex);
    m_mapSessions[++m_uLast] = pShared;
    return reinterpret_cast<void*>(m_uLast);  // NOLINT(performance-no-int-to-ptr): a number
  }
  void Remove(void* pClosure) {
    const std::lock_guard lock(m_mutex);
    m_mapSessions.erase(reinterpret_cast<uintptr_t>(pClosure));
  }
  std::shared_ptr<TShared> Find(void* pClosure) {
    const std::lock_guard lock(m_mutex);
    const auto it = m_mapSessions.find(reinterpret_cast<uintptr_t>(pClosure));
    return it == m_mapSessions.end() ? nullptr : it->second.lock();
  }

 private:
  std::mutex m_mutex;
  uintptr_t m_uLast = 0;
  std::map<uintptr_t, std::weak_ptr<TShared>> m_mapSessions;
};

}  // namespace

// libnats' objects, and what it calls.
struct CNatsSession::Library {
  using Registry = CRegistry<Shared>;

  static void OnAnswer(jsCtx* /*pStream*/, natsMsg* pMsg, jsPubAck* pAck, jsPubAckErr* pError, void* pClosure) {
    if (const std::shared_ptr<Shared> pShared = Registry::Get().Find(pClosure)) {
      pShared->File(pMsg, pAck, pError);
    }
    natsMsg_Destroy(pMsg);
  }
  static void OnClosed(natsConnection* pConnection, void* pClosure) {
    if (const std::shared_ptr<Shared> pShared = Registry::Get().Find(pClosure)) {
      const char* pszReason = nullptr;
      natsConnection_GetLastError(pConnection, &pszReason);
      pShared->Lose(pszReason != nullptr && *pszReason != '\0' ? pszReason : "the server closed the connection");
    }
  }
  static void OnError(natsConnection* pConnection, natsSubscription* /*pSubscription*/, natsStatus status,
                      void* pClosure) {
    // The server drops what the agent may not publish, without an answer to the record itself.
    const std::shared_ptr<Shared> pShared = Registry::Get().Find(pClosure);
    if (pShared && status == NATS_NOT_PERMITTED) {
      const char* pszReason = nullptr;
      natsConnection_GetLastError(pConnection, &pszReason);
      pShared->Lose(pszReason != nullptr && *pszReason != '\0' ? pszReason : natsStatus_GetText(status));
    }
  }

  explicit Library(const std::shared_ptr<Shared>& pShared) : pClosure(Registry::Get().Add(pShared)) {}
  ~Library() {
    Registry::Get().Remove(pClosure);
    jsCtx_Destroy(pStream);
    natsConnection_Destroy(pConnection);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  void* const pClosure;
  natsConnection* pConnection = nullptr;
  jsCtx* pStream = nullptr;
};

// What took memory was taken before: a record must not be lost on the way.
void CNatsSession::Shared::File(natsMsg* pMsg, const jsPubAck* pAck, const jsPubAckErr* pError) noexcept {
  {
    const std::lock_guard lock(mutex);
    const auto it = mapPending.find(pMsg);
    if (it == mapPending.end()) {
      return;
    }
    NatsPublished& published = *it->second;
    NatsAnswer& answer = published.answer;
    const char* pszText = nullptr;
    if (pError != nullptr) {
      answer.iStatus = pError->Err;
      answer.iErrorCode = pError->ErrCode;
      pszText = pError->ErrText;
    } else if (pAck != nullptr) {
      answer.bAcknowledged = pAck->Stream != nullptr && strStream == pAck->Stream;
      answer.iStatus = answer.bAcknowledged ? NATS_OK : NATS_MISMATCH;
      pszText = answer.bAcknowledged ? nullptr : pAck->Stream;
    }
    try {
      answer.strText = pszText != nullptr ? pszText : "";
    } catch (...) {
      answer.strText.clear();
    }
    uPendingBytes -= published.uBytes;
    lstAnswered.splice(lstAnswered.end(), lstPending, it->second);
    mapPending.erase(it);
  }
  wake();
}

void CNatsSession::Shared::Lose(const char* pszReason) noexcept {
  {
    const std::lock_guard lock(mutex);
    if (!std::exchange(bLost, true)) {
      try {
        strLostReason = pszReason;
      } catch (...) {
        strLostReason.clear();
      }
    }
  }
  wake();
}

CNatsSession::CNatsSession(const NatsDriverOptions& options, std::function<void()> wake)
    : m_options(options),
      m_pShared(std::make_shared<Shared>(std::move(wake), options.strStream)),
      m_pLibrary(std::make_unique<Library>(m_pShared)) {}

CNatsSession::~CNatsSession() = default;

bool CNatsSession::Open(const std::string& strUrl, bool bTls, const NatsSecrets& secrets,
                        std::function<bool()> isCancelled, std::string& strReason) {
  if (!Connect(strUrl, bTls, secrets, std::move(isCancelled), strReason)) {
    return false;
  }
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = m_options.uConnectTimeoutMs;
  options.PublishAsync.MaxPending = kLibraryPending;
  options.PublishAsync.AckHandler = Library::OnAnswer;
  options.PublishAsync.AckHandlerClosure = m_pLibrary->pClosure;
  const natsStatus status = natsConnection_JetStream(&m_pLibrary->pStream, m_pLibrary->pConnection, &options);
  if (status != NATS_OK) {
    strReason = LastError(status);
    return false;
  }
  size_t uMaxOfStream = 0;
  return AskMaxOfStream(uMaxOfStream, strReason);
}

bool CNatsSession::Connect(const std::string& strUrl, bool bTls, const NatsSecrets& secrets,
                           std::function<bool()> isCancelled, std::string& strReason) {
  natsOptions* pRaw = nullptr;
  natsStatus status = natsOptions_Create(&pRaw);
  const OptionsHandle handle(pRaw, natsOptions_Destroy);
  const auto Do = [&status](natsStatus next) { status = status == NATS_OK ? next : status; };
  const std::string strName = "qmhost " + m_options.strAgentId;
  const std::string& strKey = m_options.strClientKey.empty() ? m_options.strClientCert : m_options.strClientKey;
  const char* pszUrl = strUrl.c_str();
  if (status == NATS_OK) {
    Do(natsOptions_SetServers(pRaw, &pszUrl, 1));
    Do(natsOptions_SetName(pRaw, strName.c_str()));
    // Later than the watch: libnats would not give up but turn in a circle.
    Do(natsOptions_SetTimeout(pRaw, m_options.uConnectTimeoutMs + kAfterWatchMs));
    // Connecting again is the driver's: with its pauses, fresh credentials, and only to servers that were configured.
    Do(natsOptions_SetAllowReconnect(pRaw, false));
    Do(natsOptions_SetIgnoreDiscoveredServers(pRaw, true));
    Do(natsOptions_SetPingInterval(pRaw, kPingIntervalMs));
    Do(natsOptions_SetWriteDeadline(pRaw, kWriteDeadlineMs));
    Do(natsOptions_SetNoEcho(pRaw, true));
    Do(natsOptions_SetClosedCB(pRaw, Library::OnClosed, m_pLibrary->pClosure));
    Do(natsOptions_SetErrorHandler(pRaw, Library::OnError, m_pLibrary->pClosure));
  }
  if (status == NATS_OK && bTls) {
    Do(natsOptions_SetSecure(pRaw, true));
    if (!m_options.strCaFile.empty()) {
      Do(natsOptions_LoadCATrustedCertificates(pRaw, m_options.strCaFile.c_str()));
    }
    if (!m_options.strClientCert.empty()) {
      Do(natsOptions_LoadCertificatesChain(pRaw, m_options.strClientCert.c_str(), strKey.c_str()));
    }
  }
  if (status == NATS_OK && !m_options.strCredentialsFile.empty()) {
    Do(natsOptions_SetUserCredentialsFromFiles(pRaw, m_options.strCredentialsFile.c_str(), nullptr));
  }
  if (status == NATS_OK && !secrets.strToken.empty()) {
    Do(natsOptions_SetToken(pRaw, secrets.strToken.c_str()));
  }
  if (status == NATS_OK && !m_options.strUser.empty()) {
    Do(natsOptions_SetUserInfo(pRaw, m_options.strUser.c_str(), secrets.strPassword.c_str()));
  }
  if (status == NATS_OK) {
    const CSocketWatch watch(HostOf(strUrl), PortOf(strUrl), std::chrono::milliseconds(m_options.uConnectTimeoutMs),
                             std::move(isCancelled));
    Do(natsConnection_Connect(&m_pLibrary->pConnection, pRaw));
    if (status != NATS_OK && watch.IsOver()) {
      strReason = "the server did not answer in time";
      return false;
    }
  }
  if (status != NATS_OK) {
    strReason = LastError(status);
    return false;
  }
  if (natsConnection_HasHeaderSupport(m_pLibrary->pConnection) != NATS_OK) {
    strReason = "the server knows no headers";
    return false;
  }
  return true;
}

bool CNatsSession::AskMaxOfStream(size_t& uBytes, std::string& strReason) {
  jsStreamInfo* pRaw = nullptr;
  jsErrCode code{};
  const natsStatus status = js_GetStreamInfo(&pRaw, m_pLibrary->pStream, m_options.strStream.c_str(), nullptr, &code);
  const StreamHandle handle(pRaw, jsStreamInfo_Destroy);
  if (status != NATS_OK) {
    strReason = "asked for the stream " + m_options.strStream + ", the server says: ";
    strReason += status == NATS_NOT_FOUND || code == JSStreamNotFoundErr ? "there is none" : LastError(status);
    return false;
  }
  strReason = WhyStreamIsOfNoUse(m_options.strStream, *pRaw, AllSubjects(m_options.strSubject, m_options.strAgentId));
  if (!strReason.empty()) {
    return false;
  }
  m_strLosses = DescribeLosses(m_options.strStream, *pRaw);
  const int32_t iMost = pRaw->Config->MaxMsgSize;
  uBytes = iMost > 0 ? static_cast<size_t>(iMost) : 0;
  return true;
}

bool CNatsSession::Publish(const std::shared_ptr<LinkRecord>& pRecord, const std::string& strSubject,
                           const std::string& strId, const std::string& strPayload, NatsAnswer& answer) {
  std::list<NatsPublished> lstNew(1);
  lstNew.front().pRecord = pRecord;
  lstNew.front().uBytes = MessageSize(strId.size(), strPayload.size());
  lstNew.front().at = Clock::now();
  natsMsg* pMsg = nullptr;
  natsStatus status =
      natsMsg_Create(&pMsg, strSubject.c_str(), nullptr, strPayload.data(), static_cast<int>(strPayload.size()));
  if (status == NATS_OK) {
    {
      const std::lock_guard lock(m_pShared->mutex);
      try {
        m_pShared->mapPending.emplace(pMsg, lstNew.begin());
      } catch (...) {
        natsMsg_Destroy(pMsg);
        throw;
      }
      m_pShared->uPendingBytes += lstNew.front().uBytes;
      m_pShared->lstPending.splice(m_pShared->lstPending.end(), lstNew);
    }
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = m_options.uTimeoutMs;
    options.MsgId = strId.c_str();
    options.ExpectStream = m_options.strStream.c_str();
    natsMsg* pGiven = pMsg;
    status = js_PublishMsgAsync(m_pLibrary->pStream, &pGiven, &options);
    if (status == NATS_OK) {
      return true;
    }
    const std::lock_guard lock(m_pShared->mutex);
    const auto it = m_pShared->mapPending.find(pMsg);
    if (it == m_pShared->mapPending.end()) {
      return true;  // it has been answered all the same
    }
    m_pShared->uPendingBytes -= it->second->uBytes;
    m_pShared->lstPending.erase(it->second);
    m_pShared->mapPending.erase(it);
    natsMsg_Destroy(pGiven);
  }
  answer = NatsAnswer();
  answer.iStatus = status;
  answer.strText = LastDetail();
  return false;
}

size_t CNatsSession::MessageSize(size_t uIdBytes, size_t uPayloadBytes) const {
  return kHeaderBytes + uIdBytes + m_options.strStream.size() + uPayloadBytes;
}

size_t CNatsSession::MaxMessage() const {
  return static_cast<size_t>(std::max<int64_t>(natsConnection_GetMaxPayload(m_pLibrary->pConnection), 0));
}

bool CNatsSession::IsIdle() const {
  const std::lock_guard lock(m_pShared->mutex);
  return m_pShared->lstPending.empty() && m_pShared->lstAnswered.empty();
}

size_t CNatsSession::CountPending() const {
  const std::lock_guard lock(m_pShared->mutex);
  return m_pShared->lstPending.size();
}

size_t CNatsSession::PendingBytes() const {
  const std::lock_guard lock(m_pShared->mutex);
  return m_pShared->uPendingBytes;
}

std::list<NatsPublished> CNatsSession::TakeAnswered() {
  const std::lock_guard lock(m_pShared->mutex);
  return std::exchange(m_pShared->lstAnswered, {});
}

std::list<NatsPublished> CNatsSession::TakePending() {
  const std::lock_guard lock(m_pShared->mutex);
  m_pShared->mapPending.clear();
  m_pShared->uPendingBytes = 0;
  return std::exchange(m_pShared->lstPending, {});
}

bool CNatsSession::IsLost(std::string& strReason) const {
  const std::lock_guard lock(m_pShared->mutex);
  if (m_pShared->bLost) {
    strReason = m_pShared->strLostReason;
  }
  return m_pShared->bLost;
}
