#include <algorithm>
#include <iterator>
#include <utility>

#include "host/link/nats/nats_worker.h"
#include "host/protocol/host_status.h"
#include "platform/log.h"

namespace {

// A link that was up for so long has settled: the pauses of its next outage start anew.
constexpr std::chrono::seconds kSettledAfter{60};
constexpr std::chrono::milliseconds kPauseAfterSurrender{100};

}  // namespace

void CNatsWorker::TakeAnswers() {
  if (!m_bUp) {
    return;
  }
  m_lstAnswered.splice(m_lstAnswered.end(), m_pSession->TakeAnswered());
  std::string strReason;
  bool bTrouble = false;
  while (!m_lstAnswered.empty() && !bTrouble) {
    if (m_lstAnswered.front().answer.bAcknowledged) {
      m_lastAccepted = Clock::now();
      Tell([this](ILinkEvents& events) {
        while (!m_lstAnswered.empty() && m_lstAnswered.front().answer.bAcknowledged) {
          events.OnOutcome(m_lstAnswered.front().pRecord, kHostOk);
          m_lstAnswered.pop_front();
        }
      });
    } else if (const std::optional<uint32_t> uResult = JudgeFirst(strReason)) {
      AnswerFirst(m_lstAnswered, *uResult);
    } else {
      bTrouble = true;
    }
  }
  if (bTrouble || m_pSession->IsLost(strReason)) {
    GoDown(strReason);
  }
}

std::optional<uint32_t> CNatsWorker::JudgeFirst(std::string& strReason) {
  const NatsPublished& published = m_lstAnswered.front();
  switch (JudgeNatsAnswer(published.answer)) {
    case NatsAnswerKind::Delivered:
      return kHostOk;
    case NatsAnswerKind::TooLarge:
      return JudgeTooLarge(published, strReason);
    case NatsAnswerKind::TimedOut:
      if (m_lastAccepted <= published.at) {
        strReason = "no acknowledgement in time";
        return std::nullopt;
      }
      // Others were acknowledged in the meantime: the loss is this record's own.
      if (!std::exchange(m_bTimeoutLogged, true)) {
        LogPrint(m_hLog, kLogWarning, "nats link: no acknowledgement in time, to be sent again: record %llx",
                 static_cast<unsigned long long>(published.pRecord->tags.u64DataId));
      }
      return kHostSendTimeout;
    case NatsAnswerKind::LinkTrouble:
      break;
  }
  strReason = DescribeNatsAnswer(published.answer);
  return std::nullopt;
}

// A record is rejected, and so deleted for good, only when the stream itself names a bound that it exceeds.
std::optional<uint32_t> CNatsWorker::JudgeTooLarge(const NatsPublished& published, std::string& strReason) {
  size_t uMost = 0;
  const CForeignCode foreign;  // libnats waits as long as it is allowed to
  if (!m_pSession->AskMaxOfStream(uMost, strReason)) {
    return std::nullopt;
  }
  if (uMost == 0 || published.uBytes <= uMost) {
    strReason = "the stream refuses a message of " + std::to_string(published.uBytes) +
                " bytes as too large, and says that it takes it";
    return std::nullopt;
  }
  if (uMost < kLeastMessage) {
    strReason =
        "the stream takes messages of " + std::to_string(uMost) + " bytes only (max_msg_size): it must take 65536";
    return std::nullopt;
  }
  LogRejected(*published.pRecord, published.uBytes, uMost, "the stream");
  return kHostRecordRefused;
}

void CNatsWorker::LogRejected(const LinkRecord& record, size_t uBytes, size_t uMost, const char* pszWhose) {
  LogPrint(m_hLog, kLogWarning, "nats link: %s refused record %llx for good: %zu bytes, and the bound is %zu", pszWhose,
           static_cast<unsigned long long>(record.tags.u64DataId), uBytes, uMost);
}

void CNatsWorker::AnswerFirst(std::list<NatsPublished>& lstRecords, uint32_t uResult) {
  Tell([&](ILinkEvents& events) { events.OnOutcome(lstRecords.front().pRecord, uResult); });
  lstRecords.pop_front();
}

void CNatsWorker::ComeUp() {
  m_bUp = true;
  m_bToldDown = false;
  m_bTimeoutLogged = false;
  m_bAwayLogged = false;
  m_upSince = Clock::now();
  Tell([](ILinkEvents& events) { events.OnUp(); });
}

void CNatsWorker::StayDown(const std::string& strReason) {
  m_nextAttempt = Clock::now() + m_backOff.Next(std::nullopt);
  if (m_renewAt) {
    // A new connection was asked for meanwhile: that attempt is not put off.
    m_nextAttempt = std::min(m_nextAttempt, std::max(*m_renewAt, Clock::now()));
  }
  if (!strReason.empty() && !std::exchange(m_bToldDown, true)) {
    Tell([&](ILinkEvents& events) { events.OnDown(strReason); });
  }
}

// The link is told first: what is given back afterwards, it keeps instead of sending it here again at once.
void CNatsWorker::GoDown(const std::string& strReason) {
  if (Clock::now() - m_upSince >= kSettledAfter) {
    m_backOff.Reset();
  }
  m_bUp = false;
  m_uNeeded = 0;
  if (m_pSession) {
    // Answers that came before this moment count.
    std::list<NatsPublished> lstPending = m_pSession->TakePending();
    m_lstAnswered.splice(m_lstAnswered.end(), m_pSession->TakeAnswered());
    m_lstAnswered.splice(m_lstAnswered.end(), lstPending);
    m_pSession.reset();
  }
  StayDown(strReason.empty() ? "the connection was lost" : strReason);
  while (!m_lstAnswered.empty()) {
    if (m_lstAnswered.front().answer.bAcknowledged) {
      AnswerFirst(m_lstAnswered, kHostOk);
    } else {
      m_lstBack.splice(m_lstBack.end(), m_lstAnswered, m_lstAnswered.begin());
    }
  }
  RecordList vecBack;
  {
    const std::lock_guard lock(m_mutex);
    vecBack.reserve(m_lstBack.size() + m_deqQueue.size() + m_vecDelivered.size());
    std::transform(m_lstBack.begin(), m_lstBack.end(), std::back_inserter(vecBack),
                   [](const NatsPublished& published) { return published.pRecord; });
    vecBack.insert(vecBack.end(), m_deqQueue.begin(), m_deqQueue.end());
    vecBack.insert(vecBack.end(), m_vecDelivered.begin(), m_vecDelivered.end());
    m_vecDelivered.clear();
  }
  m_lstBack.clear();
  m_deqQueue.clear();
  if (!vecBack.empty()) {
    Tell([&](ILinkEvents& events) { events.OnGivenBack(std::move(vecBack)); });
  }
}

void CNatsWorker::Surrender(const char* pszWhy) noexcept {
  LogPrint(m_hLog, kLogWarning, "nats link: %s; the records at hand are to be sent again", pszWhy);
  {
    const std::lock_guard lock(m_mutex);
    m_bConnecting = false;
  }
  if (!m_bUp && m_pSession) {
    m_lstBack.splice(m_lstBack.end(), m_pSession->TakePending());
    m_pSession.reset();
  }
  for (std::list<NatsPublished>* pRecords : {&m_lstAnswered, &m_lstBack}) {
    while (!pRecords->empty()) {
      AnswerFirst(*pRecords, pRecords->front().answer.bAcknowledged ? kHostOk : kHostSendTimeout);
    }
  }
  m_uNeeded = 0;
  while (!m_deqQueue.empty()) {
    Tell([this](ILinkEvents& events) { events.OnOutcome(m_deqQueue.front(), kHostSendTimeout); });
    m_deqQueue.pop_front();
  }
  std::this_thread::sleep_for(kPauseAfterSurrender);
}
