#include "host/link/nats/nats_worker.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "host/link/append_file.h"
#include "host/link/identified_line.h"
#include "host/link/nats/nats_names.h"
#include "host/protocol/host_status.h"
#include "host/router/thread_setup.h"
#include "platform/log.h"

namespace {

constexpr std::chrono::milliseconds kStopGrace{3000};
// Beyond the grace: for a call of libnats that is about to return.
constexpr std::chrono::milliseconds kStopSlack{750};
constexpr std::chrono::milliseconds kStopLook{50};
// Nothing is waited for longer; a look at the state costs nothing.
constexpr std::chrono::milliseconds kLongestWait{60000};
// Records wait here rather than in the buffers of a connection.
constexpr size_t kMostPendingBytes = 1U << 20;
// A buffer that one giant record has blown up is not kept.
constexpr size_t kKeptBufferSize = 1U << 20;
constexpr mode_t kTooOpen = S_IWGRP | S_IRWXO;

// libnats reads it; what others may read or write is refused as a token's file is.
bool CheckCredentialsFile(const std::string& strFile, std::string& strReason) {
  struct stat status {};
  if (strFile.empty()) {
    return true;
  }
  if (stat(strFile.c_str(), &status) != 0) {
    strReason = DescribeError("open the credentials file", strFile, errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    strReason = "the credentials file " + strFile + " is not a regular file";
    return false;
  }
  if ((status.st_mode & kTooOpen) != 0) {
    strReason = "the credentials file " + strFile + " is open to other users: its mode must be 0640 or stricter";
    return false;
  }
  return true;
}

}  // namespace

CNatsWorker::CNatsWorker(const NatsDriverOptions& options, NatsServers servers, ILinkEvents* pEvents)
    : m_options(options),
      m_servers(std::move(servers)),
      m_pEvents(pEvents),
      m_hLog(LogInit("qmhost")),
      m_token(options.strTokenFile),
      m_password(options.strPasswordFile),
      m_backOff(options.u64Seed != 0 ? options.u64Seed : MakeSeed(),
                std::chrono::milliseconds(options.uLongestBackOffMs)),
      m_random(options.u64Seed != 0 ? options.u64Seed : MakeSeed()),
      m_nextAttempt(Clock::now()) {}

CNatsWorker::~CNatsWorker() {
  LogUninit(m_hLog);
}

void CNatsWorker::Start() {
  m_thread = std::thread([pSelf = shared_from_this()] { pSelf->Run(); });
}

void CNatsWorker::Stop() {
  const auto begun = Clock::now();
  auto until = begun + kStopGrace + kStopSlack;
  std::unique_lock lock(m_mutex);
  m_bStop = true;
  m_condition.notify_all();
  while (!m_bDone && Clock::now() < until) {
    m_condition.wait_for(lock, kStopLook, [this] { return m_bDone; });
    if (!m_bDone && m_bConnecting) {
      // There is nothing that a connection could still deliver.
      until = std::min(until, begun + kStopSlack);
    }
  }
  if (m_bDone) {
    lock.unlock();
    m_thread.join();
    return;
  }
  // It hangs in libnats. A call into the link ends by itself.
  m_bAbandoned = true;
  m_condition.wait(lock, [this] { return !m_bTelling; });
  lock.unlock();
  m_thread.detach();
  LogPrint(m_hLog, kLogWarning, "nats link: a call of libnats does not return, and its thread is left behind");
}

void CNatsWorker::Deliver(const std::shared_ptr<LinkRecord>& pRecord) {
  bool bWake = false;
  bool bQueued = true;
  try {
    const std::lock_guard lock(m_mutex);
    m_vecDelivered.push_back(pRecord);
    m_bWake = true;
    bWake = m_bWaiting;
  } catch (const std::exception&) {
    bQueued = false;
  }
  if (!bQueued) {
    m_pEvents->OnOutcome(pRecord, kHostSendTimeout);
  } else if (bWake) {
    m_condition.notify_all();
  }
}

void CNatsWorker::Reopen() {
  const std::lock_guard lock(m_mutex);
  m_bReopen = true;
  m_bWake = true;
  m_condition.notify_all();
}

void CNatsWorker::Wake() {
  const std::lock_guard lock(m_mutex);
  if (!std::exchange(m_bWake, true) && m_bWaiting) {
    m_condition.notify_all();
  }
}

void CNatsWorker::Run() {
  SetUpThread("qmhost-nats");
  for (bool bGoOn = true; bGoOn;) {
    try {
      bGoOn = Step();
    } catch (const std::exception& exception) {
      Surrender(exception.what());
    }
  }
  m_pSession.reset();
  m_deqQueue.clear();
  const std::lock_guard lock(m_mutex);
  m_vecDelivered.clear();
  m_bDone = true;
  m_condition.notify_all();
}

bool CNatsWorker::Step() {
  TakeOrders();
  if (m_bUp && !m_pSession) {
    GoDown("no memory for a new connection");  // a renewal was cut short
  }
  TakeAnswers();
  if (IsDone()) {
    return false;
  }
  if (m_bRenew && !m_stopUntil && (!m_bUp || m_pSession->IsIdle())) {
    Renew();
  }
  std::string strReason;
  if (!m_bUp && !m_stopUntil && Clock::now() >= m_nextAttempt) {
    if (TryServers(strReason)) {
      ComeUp();
    } else {
      StayDown(strReason);
    }
    return true;
  }
  if (m_bUp && !m_bRenew) {
    PublishNext();
  }
  Wait();
  return true;
}

void CNatsWorker::TakeOrders() {
  const std::lock_guard lock(m_mutex);
  m_bWake = false;
  m_deqQueue.insert(m_deqQueue.end(), m_vecDelivered.begin(), m_vecDelivered.end());
  m_vecDelivered.clear();
  if (std::exchange(m_bReopen, false)) {
    m_bRenew = true;
    m_nextAttempt = Clock::now();
  }
  if (m_bStop && !m_stopUntil) {
    m_stopUntil = Clock::now() + kStopGrace;
  }
}

bool CNatsWorker::IsDone() const {
  const std::lock_guard lock(m_mutex);
  return m_bAbandoned ||
         (m_stopUntil && (!m_bUp || Clock::now() >= *m_stopUntil || (m_pSession->IsIdle() && m_deqQueue.empty())));
}

void CNatsWorker::Wait() {
  auto until = Clock::now() + kLongestWait;
  if (!m_bUp) {
    until = std::min(until, m_nextAttempt);
  }
  if (m_stopUntil) {
    until = std::min(until, *m_stopUntil);
  }
  std::unique_lock lock(m_mutex);
  m_bWaiting = true;
  m_condition.wait_until(lock, until, [this] { return m_bWake || (m_bStop && !m_stopUntil); });
  m_bWaiting = false;
}

// In an order of its own each time, so that a fleet spreads over the servers.
bool CNatsWorker::TryServers(std::string& strReason) {
  std::vector<std::string> vecUrls = m_servers.vecUrls;
  std::shuffle(vecUrls.begin(), vecUrls.end(), m_random);
  bool bOpen = false;
  for (const std::string& strUrl : vecUrls) {
    {
      const std::lock_guard lock(m_mutex);
      if (m_bStop) {
        return false;
      }
      m_bConnecting = true;
    }
    std::string strWhy;
    bOpen = OpenSession(strUrl, strWhy);
    {
      const std::lock_guard lock(m_mutex);
      m_bConnecting = false;
    }
    if (bOpen) {
      break;
    }
    strReason.append(strReason.empty() ? "" : "; ").append(strUrl).append(": ").append(strWhy);
  }
  return bOpen;
}

bool CNatsWorker::OpenSession(const std::string& strUrl, std::string& strReason) {
  NatsSecrets secrets;
  if (!ReadSecrets(secrets, strReason)) {
    return false;
  }
  auto pSession = std::make_unique<CNatsSession>(m_options, [pWeak = weak_from_this()] {
    if (const std::shared_ptr<CNatsWorker> pSelf = pWeak.lock()) {
      pSelf->Wake();
    }
  });
  const auto IsStopped = [this] {
    const std::lock_guard lock(m_mutex);
    return m_bStop;
  };
  if (!pSession->Open(strUrl, m_servers.bTls, secrets, IsStopped, strReason)) {
    return false;
  }
  if (pSession->MaxMessage() < kLeastMessage) {
    strReason = "the server takes messages of " + std::to_string(pSession->MaxMessage()) +
                " bytes only (max_payload): it must take 65536";
    return false;
  }
  m_pSession = std::move(pSession);
  return true;
}

bool CNatsWorker::ReadSecrets(NatsSecrets& secrets, std::string& strReason) {
  const auto Read = [&strReason](CTokenFile& file, std::string& strSecret) {
    const std::string* pSecret = file.Current(strReason);
    // libnats puts it between quotes as it is.
    if (pSecret != nullptr && pSecret->find_first_of("\"\\") != std::string::npos) {
      strReason = "a token or password with a quotation mark or a backslash cannot be used";
      return false;
    }
    strSecret = pSecret != nullptr ? *pSecret : "";
    return pSecret != nullptr;
  };
  return CheckCredentialsFile(m_options.strCredentialsFile, strReason) && Read(m_token, secrets.strToken) &&
         Read(m_password, secrets.strPassword);
}

// While the link stays up, if a server is found at once.
void CNatsWorker::Renew() {
  m_bRenew = false;
  m_token.Forget();
  m_password.Forget();
  if (!m_bUp) {
    return;
  }
  m_pSession.reset();
  std::string strReason;
  if (!TryServers(strReason)) {
    GoDown(strReason);
  }
}

void CNatsWorker::PublishNext() {
  std::string strReason;
  while (!m_deqQueue.empty() && m_pSession->CountPending() < m_options.uPending &&
         m_pSession->PendingBytes() < kMostPendingBytes) {
    if (!PublishOne(strReason)) {
      GoDown(strReason);
      return;
    }
  }
}

bool CNatsWorker::PublishOne(std::string& strReason) {
  const std::shared_ptr<LinkRecord>& pRecord = m_deqQueue.front();
  m_strSubject.clear();
  m_strId.clear();
  m_strPayload.clear();
  AppendSubject(m_strSubject, m_options.strSubject, m_options.strAgentId, pRecord->tags);
  AppendRecordId(m_strId, m_options.strAgentId, pRecord->tags.u64DataId);
  AppendIdentifiedLine(m_strPayload, m_options.strAgentId, *pRecord, m_recordLine);
  m_strPayload.pop_back();  // a message needs no line break
  const size_t uBytes = m_pSession->MessageSize(m_strId.size(), m_strPayload.size());
  const size_t uMost = m_pSession->MaxMessage();
  bool bSent = true;
  if (uBytes > uMost && uMost >= kLeastMessage) {
    LogRejected(*pRecord, uBytes, uMost, "server");
    Tell([&](ILinkEvents& events) { events.OnOutcome(pRecord, kHostRecordRefused); });
  } else {
    NatsAnswer answer;
    bSent = m_pSession->Publish(pRecord, m_strSubject, m_strId, m_strPayload, answer);
    strReason = bSent ? std::string() : "a record could not be sent: " + DescribeNatsAnswer(answer);
  }
  if (m_strPayload.capacity() > kKeptBufferSize) {
    m_strPayload = std::string();
  }
  if (bSent) {
    m_deqQueue.pop_front();
  }
  return bSent;
}
