// The servers of the list: which one the driver is connected to, and what they take.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/link/append_file.h"
#include "host/link/nats/key_file.h"
#include "host/link/nats/nats_worker.h"
#include "host/protocol/host_status.h"
#include "platform/log.h"

namespace {

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

// In an order of its own each time, so that a fleet spreads over the servers.
bool CNatsWorker::TryServers(size_t uNeeded, std::string& strReason) {
  std::vector<std::string> vecUrls = m_servers.vecUrls;
  if (m_pSession) {
    vecUrls.erase(std::remove(vecUrls.begin(), vecUrls.end(), m_strServer), vecUrls.end());
  }
  std::shuffle(vecUrls.begin(), vecUrls.end(), m_random);
  for (std::string& strUrl : vecUrls) {
    {
      const std::lock_guard lock(m_mutex);
      if (m_bStop) {
        return false;
      }
      m_bConnecting = true;
    }
    std::string strWhy;
    std::unique_ptr<CNatsSession> pSession = OpenSession(strUrl, strWhy);
    {
      const std::lock_guard lock(m_mutex);
      m_bConnecting = false;
    }
    if (pSession && pSession->MaxMessage() >= uNeeded) {
      m_pSession = std::move(pSession);
      m_strServer = std::move(strUrl);
      return true;
    }
    if (!pSession) {
      strReason.append(strReason.empty() ? "" : "; ").append(strUrl).append(": ").append(strWhy);
    }
  }
  return false;
}

std::unique_ptr<CNatsSession> CNatsWorker::OpenSession(const std::string& strUrl, std::string& strReason) {
  const CForeignCode foreign;  // files on a disk that may hang; libnats connects as long as it is allowed to
  NatsSecrets secrets;
  if (!ReadSecrets(secrets, strReason)) {
    return nullptr;
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
    return nullptr;
  }
  if (pSession->MaxMessage() < kLeastMessage) {
    strReason = "the server takes messages of " + std::to_string(pSession->MaxMessage()) +
                " bytes only (max_payload): it must take 65536";
    return nullptr;
  }
  NoteServer(strUrl, *pSession);
  return pSession;
}

// What is worth a warning about a server and its stream, each once.
void CNatsWorker::NoteServer(const std::string& strUrl, const CNatsSession& session) {
  const size_t uMost = session.MaxMessage();
  m_mapMaxMessage[strUrl] = uMost;
  const auto other = std::find_if(m_mapMaxMessage.begin(), m_mapMaxMessage.end(),
                                  [&](const auto& server) { return server.second != uMost; });
  if (other == m_mapMaxMessage.end()) {
    m_bDifferenceLogged = false;
  } else if (!std::exchange(m_bDifferenceLogged, true)) {
    LogPrint(m_hLog, kLogWarning, "nats link: the servers differ in max_payload: %s takes %zu bytes, %s %zu",
             strUrl.c_str(), uMost, other->first.c_str(), other->second);
  }
  if (session.Losses() != m_strLosses) {
    m_strLosses = session.Losses();
    if (!m_strLosses.empty()) {
      LogPrint(m_hLog, kLogWarning, "nats link: what is acknowledged may be lost: %s", m_strLosses.c_str());
    }
  }
}

// The connected server does not take the first record, and nothing waits for an answer: the link moves to a server that
// takes it. The record is rejected when there is none; a server that was never reached has no say. One that has said
// that it takes it, and is away, does: the record is to come again then.
void CNatsWorker::MoveForFirst() {
  std::string strIgnored;
  if (m_uNeeded <= m_pSession->MaxMessage() || TryServers(m_uNeeded, strIgnored)) {
    m_uNeeded = 0;
    return;
  }
  {
    const std::lock_guard lock(m_mutex);
    if (m_bStop) {
      return;  // not all were asked
    }
  }
  size_t uMost = m_pSession->MaxMessage();
  for (const auto& [strUrl, uMax] : m_mapMaxMessage) {
    uMost = std::max(uMost, strUrl == m_strServer ? 0 : uMax);
  }
  const LinkRecord& record = *m_deqQueue.front();
  const bool bWaits = m_uNeeded <= uMost;
  if (!bWaits) {
    LogRejected(record, m_uNeeded, uMost, m_servers.vecUrls.size() > 1 ? "every server" : "the server");
  } else if (!std::exchange(m_bAwayLogged, true)) {
    LogPrint(m_hLog, kLogWarning,
             "nats link: record %llx is too large for all servers but some that are away: to be sent again",
             static_cast<unsigned long long>(record.tags.u64DataId));
  }
  m_uNeeded = 0;
  Tell([&](ILinkEvents& events) {
    events.OnOutcome(m_deqQueue.front(), bWaits ? kHostSendTimeout : kHostRecordRefused);
  });
  m_deqQueue.pop_front();
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
  const std::string& strKey = m_options.strClientKey.empty() ? m_options.strClientCert : m_options.strClientKey;
  return (strKey.empty() || CheckKeyFile(strKey, strReason)) &&
         CheckCredentialsFile(m_options.strCredentialsFile, strReason) && Read(m_token, secrets.strToken) &&
         Read(m_password, secrets.strPassword);
}

// While the link stays up, if a server is found at once.
void CNatsWorker::Renew() {
  m_renewAt.reset();
  m_token.Forget();
  m_password.Forget();
  if (!m_bUp) {
    return;
  }
  m_pSession.reset();
  std::string strReason;
  if (!TryServers(0, strReason)) {
    GoDown(strReason);
  }
}
