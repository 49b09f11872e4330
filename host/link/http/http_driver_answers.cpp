#include <algorithm>
#include <iterator>
#include <utility>

#include "host/link/http/http_driver_class.h"
#include "host/protocol/host_status.h"
#include "platform/log.h"

namespace {

// A link that was up for so long has settled: the pauses of its next outage start anew.
constexpr std::chrono::seconds kSettledAfter{60};
constexpr std::chrono::milliseconds kPauseAfterSurrender{100};
// So many records may be refused in a row, each by itself, before the server is held to refuse all: halving a batch has
// to pass over some bad records in a row. Of a server that has refused all before, it takes fewer.
constexpr size_t kMostRefused = 32;
constexpr size_t kMostRefusedWary = 4;
// How long a refused record may wait for others to be accepted, after some have been while its batch was halved.
constexpr std::chrono::minutes kLongDoubt{10};

}  // namespace

void CHttpDriver::TakeAnswer(const CTransfers::Finished& finished) {
  Request& request = m_vecRequests[finished.uSlot];
  request.bBusy = false;
  if (m_bUp) {
    TakeBatchAnswer(request, finished.answer);
  } else {
    TakeProbeAnswer(finished.answer);
  }
}

void CHttpDriver::TakeProbeAnswer(const HttpAnswer& answer) {
  switch (JudgeAnswer(answer)) {
    case AnswerKind::Delivered:
      ComeUp();
      return;
    case AnswerKind::Refused:
      StayDown("the server refuses even an empty batch: " + DescribeAnswer(answer), answer.retryAfter);
      return;
    case AnswerKind::TimedOut:
    case AnswerKind::LinkTrouble:
      StayDown(DescribeAnswer(answer), answer.retryAfter);
      return;
  }
}

// The records stay in the request until they have gone somewhere else, so that a failure here loses none.
void CHttpDriver::TakeBatchAnswer(Request& request, const HttpAnswer& answer) {
  switch (JudgeAnswer(answer)) {
    case AnswerKind::Delivered:
      TakeAcceptance(request);
      return;
    case AnswerKind::Refused:
      TakeRefusal(request.batch, answer);
      return;
    case AnswerKind::TimedOut:
      TakeTimeout(request);
      return;
    case AnswerKind::LinkTrouble:
      GoDown(DescribeAnswer(answer), answer.retryAfter);
      return;
  }
}

void CHttpDriver::TakeAcceptance(Request& request) {
  if (request.batch.bAsking) {
    AnswerTimeout(request.batch);
    return;
  }
  if (request.batch.vecRecords.size() == kBatchRecords) {
    m_fullAnswered = Clock::now();
  }
  Answer(request.batch, kHostOk);
  m_u64Accepted = std::max(m_u64Accepted, request.u64Number);
  m_bWary = false;
  m_doubtSince = Clock::now();
  m_queue.BringBack(m_u64Accepted);
}

// A record is rejected, and so deleted for good, only when it was refused by itself, the server has accepted records
// that were sent after that, and it was refused again.
void CHttpDriver::TakeRefusal(HttpBatch& batch, const HttpAnswer& answer) {
  if (batch.bAsking) {
    GoDown("the server refuses even an empty batch: " + DescribeAnswer(answer), answer.retryAfter);
    return;
  }
  batch.firstRefusedAfter = batch.firstRefusedAfter.value_or(m_u64Begun);
  if (batch.vecRecords.size() > 1) {
    m_queue.AddHalvesFirst(batch);
    return;
  }
  if (batch.refusedAfter) {
    Reject(batch, answer.i64Status);
    return;
  }
  batch.refusedAfter = m_u64Begun;
  m_u64FirstRefusedAfter = *batch.firstRefusedAfter;
  m_i64RefusedStatus = answer.i64Status;
  if (m_queue.CountAside() == 0) {
    m_doubtSince = Clock::now();
  }
  m_queue.PutAside(batch);
  CheckDoubt();
}

std::chrono::milliseconds CHttpDriver::LongestDoubt() const {
  return m_u64Accepted > m_u64FirstRefusedAfter ? kLongDoubt : std::chrono::milliseconds(m_options.uTimeoutMs);
}

// Records that were refused, while none is accepted that could tell whether they are to blame: either the server
// refuses all, or nothing else is there to be sent, perhaps since the sender waits for the outcome of these.
void CHttpDriver::CheckDoubt() {
  const size_t uMost = m_bWary ? kMostRefusedWary : kMostRefused;
  const bool bLate = Clock::now() >= m_doubtSince + LongestDoubt();
  if (m_bUp && m_queue.CountAside() > 0 && (bLate || m_queue.CountAside() >= uMost)) {
    m_bWary = true;
    GoDown("the server refuses records and has accepted none since: HTTP status " + std::to_string(m_i64RefusedStatus),
           std::nullopt);
  }
}

// While others are accepted, an answer that does not come is the outcome of its own records, as soon as the server has
// shown that it is still there. Otherwise it is away.
void CHttpDriver::TakeTimeout(Request& request) {
  if (m_u64Accepted < request.u64Number) {
    GoDown("no answer in time", std::nullopt);
  } else if (request.batch.bAsking) {
    AnswerTimeout(request.batch);
  } else {
    request.batch.bAsking = true;
    m_queue.AddFirst(request.batch);
  }
}

void CHttpDriver::AnswerTimeout(HttpBatch& batch) {
  if (!std::exchange(m_bTimeoutLogged, true)) {
    LogPrint(m_hLog, kLogWarning, "http link: no answer in time, %zu records are to be sent again",
             batch.vecRecords.size());
  }
  Answer(batch, kHostSendTimeout);
}

void CHttpDriver::Reject(HttpBatch& batch, long i64Status) {
  LogPrint(m_hLog, kLogWarning, "http link: the server refused record %llx for good: HTTP status %ld",
           static_cast<unsigned long long>(batch.vecRecords.front()->tags.u64DataId), i64Status);
  Answer(batch, kHostRecordRefused);
}

void CHttpDriver::Answer(HttpBatch& batch, uint32_t uResult) {
  if (uResult == kHostOk) {
    m_pEvents->OnDelivered(batch.vecRecords, batch.vecRecords.size());
  } else {
    for (const auto& pRecord : batch.vecRecords) {
      m_pEvents->OnOutcome(pRecord, uResult);
    }
  }
  batch = HttpBatch();
}

void CHttpDriver::ComeUp() {
  m_bUp = true;
  m_bToldDown = false;
  m_bTimeoutLogged = false;
  m_upSince = Clock::now();
  m_pEvents->OnUp();
}

void CHttpDriver::StayDown(const std::string& strReason, std::optional<std::chrono::seconds> retryAfter) {
  m_nextAttempt = Clock::now() + m_backOff.Next(retryAfter);
  if (m_renewAt) {
    // New connections were asked for meanwhile: that attempt is not put off.
    m_nextAttempt = std::min(m_nextAttempt, std::max(*m_renewAt, Clock::now()));
  }
  if (!std::exchange(m_bToldDown, true)) {
    m_pEvents->OnDown(strReason);
  }
}

// The link is told first: what is given back afterwards, it keeps instead of sending it here again at once.
void CHttpDriver::GoDown(const std::string& strReason, std::optional<std::chrono::seconds> retryAfter) {
  if (Clock::now() - m_upSince >= kSettledAfter) {
    m_backOff.Reset();
  }
  for (size_t i = 0; i < m_vecRequests.size(); ++i) {
    m_transfers.Abort(i);
    m_vecRequests[i].bBusy = false;
  }
  m_bUp = false;
  StayDown(strReason, retryAfter);
  for (Request& request : m_vecRequests) {
    GiveBack(std::exchange(request.batch, HttpBatch()).vecRecords);
  }
  GiveBack(m_queue.TakeAll());
  LinkRecordList vecDelivered;
  {
    const std::lock_guard lock(m_mutex);
    vecDelivered.swap(m_vecDelivered);
    m_uDeliveredBytes = 0;
  }
  GiveBack(std::move(vecDelivered));
}

void CHttpDriver::GiveBack(LinkRecordList vecRecords) {
  if (!vecRecords.empty()) {
    m_pEvents->OnGivenBack(std::move(vecRecords));
  }
}

void CHttpDriver::Surrender(const char* pszWhy) noexcept {
  LogPrint(m_hLog, kLogWarning, "http link: %s; the records at hand are to be sent again", pszWhy);
  for (size_t i = 0; i < m_vecRequests.size(); ++i) {
    m_transfers.Abort(i);
    m_vecRequests[i].bBusy = false;
    Answer(m_vecRequests[i].batch, kHostSendTimeout);
  }
  while (const std::shared_ptr<LinkRecord> pRecord = m_queue.TakeOne()) {
    m_pEvents->OnOutcome(pRecord, kHostSendTimeout);
  }
  m_renewAt = Clock::now();
  m_nextAttempt = Clock::now() + m_backOff.Next(std::nullopt);
  std::this_thread::sleep_for(kPauseAfterSurrender);
}
