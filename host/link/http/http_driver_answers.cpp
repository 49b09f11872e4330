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

}  // namespace

void CHttpDriver::TakeAnswer(const CTransfers::Finished& finished) {
  Request& request = m_vecRequests[finished.uSlot];
  request.bBusy = false;
  if (finished.answer.bAnswered) {
    m_timedOutAt.reset();
  }
  if (m_bUp) {
    TakeBatchAnswer(request, finished.answer);
  } else {
    TakeProbeAnswer(finished.answer);
  }
}

void CHttpDriver::TakeProbeAnswer(const HttpAnswer& answer) {
  switch (JudgeAnswer(answer)) {
    case AnswerKind::Delivered:
      ++m_u64Accepted;
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
      ++m_u64Accepted;
      if (request.batch.bAsking) {
        Reject(request.batch);
      } else {
        Answer(request.batch, kHostOk);
      }
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

// A record is rejected, and so deleted for good, only when it was refused by itself and the server has accepted
// something else since the refusals began.
void CHttpDriver::TakeRefusal(HttpBatch& batch, const HttpAnswer& answer) {
  if (batch.bAsking) {
    GoDown("the server refuses even an empty batch: " + DescribeAnswer(answer), answer.retryAfter);
    return;
  }
  if (!batch.acceptedBefore) {
    batch.acceptedBefore = m_u64Accepted;
  }
  batch.i64RefusedStatus = answer.i64Status;
  if (batch.vecRecords.size() > 1) {
    m_queue.AddHalvesFirst(batch);
  } else if (m_u64Accepted > *batch.acceptedBefore) {
    Reject(batch);
  } else {
    batch.bAsking = true;
    m_queue.AddFirst(batch);
  }
}

// One answer that does not come is the records' own outcome. When a request that was begun after it is not answered
// either, the server is away.
void CHttpDriver::TakeTimeout(Request& request) {
  const bool bAgain = m_timedOutAt && request.begun >= *m_timedOutAt;
  if (!m_timedOutAt) {
    m_timedOutAt = Clock::now();
    LogPrint(m_hLog, kLogWarning, "http link: no answer in time, %zu records are to be sent again",
             request.batch.vecRecords.size());
  }
  Answer(request.batch, kHostSendTimeout);
  if (bAgain) {
    GoDown("no answer in time, twice in a row", std::nullopt);
  }
}

void CHttpDriver::Reject(HttpBatch& batch) {
  LogPrint(m_hLog, kLogWarning, "http link: the server refused record %llx for good: HTTP status %ld",
           static_cast<unsigned long long>(batch.vecRecords.front()->tags.u64DataId), batch.i64RefusedStatus);
  Answer(batch, kHostRecordRefused);
}

void CHttpDriver::Answer(HttpBatch& batch, uint32_t uResult) {
  for (const auto& pRecord : batch.vecRecords) {
    m_pEvents->OnOutcome(pRecord, uResult);
  }
  batch = HttpBatch();
}

void CHttpDriver::ComeUp() {
  m_bUp = true;
  m_bToldDown = false;
  m_upSince = Clock::now();
  m_pEvents->OnUp();
}

void CHttpDriver::StayDown(const std::string& strReason, std::optional<std::chrono::seconds> retryAfter) {
  m_nextAttempt = Clock::now() + m_backOff.Next(retryAfter);
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
  m_bRenew = true;
  m_nextAttempt = Clock::now() + m_backOff.Next(std::nullopt);
  std::this_thread::sleep_for(kPauseAfterSurrender);
}
