#include "client/core/send_engine.h"

#include <algorithm>
#include <new>
#include <utility>

#include "client/core/status_words.h"

namespace {

using std::chrono::milliseconds;

constexpr size_t kMaxOutput = 1U << 20;
constexpr std::chrono::seconds kWelcomeTimeout{10};
// Until a refused record is sent again; the longer where that goes on without end.
constexpr milliseconds kRetryDelay{100};
constexpr milliseconds kLongRetryDelay{1000};
// Between attempts to connect; it doubles up to the longest where the host is waited for without end.
constexpr milliseconds kConnectDelay{100};
constexpr milliseconds kLongestConnectDelay{2000};

}  // namespace

CSendEngine::CSendEngine(SendSettings settings, ISendEvents& events)
    : m_settings(std::move(settings)),
      m_events(events),
      m_inFlight(m_settings.uMaxRecords, m_settings.uMaxBytes),
      m_connectDelay(kConnectDelay) {}

bool CSendEngine::CanSend() const {
  return m_connection.IsReady() && m_connection.Unsent() < kMaxOutput &&
         m_inFlight.OnWire() < m_connection.Welcome().uWindow;
}

void CSendEngine::Submit(PendingRecord& record) {
  m_inFlight.Charge(record);
  record.u64Order = ++m_u64Order;
  // What waits has been handed in before, and goes first.
  if (!CanSend() || !m_inFlight.NothingWaits()) {
    m_inFlight.MarkToSend(record);
    return;
  }
  try {
    Send(record);
  } catch (const std::bad_alloc&) {
    m_inFlight.Release(record);
    throw;
  }
}

void CSendEngine::Prepare(Clock::time_point now) {
  if (!m_connection.IsOpen()) {
    if (now >= m_nextConnect) {
      Connect(now);
    }
  } else if (!m_connection.IsReady() && now >= m_welcomeBy) {
    ConnectionFailed("the host does not answer", now);
  }
  SendAgain(now);
}

void CSendEngine::Connect(Clock::time_point now) {
  std::string strError;
  m_welcomeBy = now + kWelcomeTimeout;
  if (!m_connection.Begin(m_settings.strSocket, strError)) {
    ConnectionFailed(strError, now);
  }
}

void CSendEngine::Close() {
  if (m_connection.IsOpen()) {
    m_events.Closing(m_connection.Descriptor());
    m_connection.Close();
  }
}

void CSendEngine::ConnectionFailed(const std::string& strWhy, Clock::time_point now) {
  // First: without the memory for it nothing has changed.
  const std::string strText =
      m_connection.IsOpen() ? "no connection with '" + m_settings.strSocket + "': " + strWhy : strWhy;
  Close();
  m_nextConnect = now + m_connectDelay;
  if (!m_settings.retry) {
    m_connectDelay = std::min(m_connectDelay * 2, kLongestConnectDelay);
  }
  m_events.CannotConnect(strText);
  m_awaySince = m_awaySince.value_or(now);
  if (!m_bRetrying || (m_settings.retry && now >= *m_awaySince + *m_settings.retry)) {
    GiveUp();
  }
}

void CSendEngine::SendAgain(Clock::time_point now) {
  while (CanSend()) {
    PendingRecord* pRecord = m_inFlight.NextToSend(now);
    if (pRecord == nullptr) {
      return;
    }
    // Without the memory for it the record stays where it is.
    Send(*pRecord);
    m_inFlight.RemoveNext(pRecord);
  }
}

void CSendEngine::Send(PendingRecord& record) {
  const size_t uFrame = record.strPayload.size() + kIngressMessageHeaderSize;
  // Another host may take less than the one that the record was made for.
  if (uFrame > m_connection.Welcome().uMaxFrame) {
    Fail(record, SendFailure::TooLong, 0);
    return;
  }
  std::string& strOutput = m_connection.Output();
  // A frame is appended whole or, without the memory, not at all.
  strOutput.reserve(strOutput.size() + kIngressPrefixSize + uFrame);
  const uint64_t u64RequestId = m_inFlight.MarkSent(record);
  AppendMessage(strOutput, {record.uType, u64RequestId, record.sender.value_or(m_settings.sender), record.strPayload});
}

void CSendEngine::Exchange() {
  if (!m_connection.IsOpen()) {
    return;
  }
  const bool bWasReady = m_connection.IsReady();
  std::string strError;
  const bool bAlive = m_connection.Flush(strError) && m_connection.Receive(m_vecAnswers, strError);
  const Clock::time_point now = Clock::now();
  const bool bReady = m_connection.IsReady();
  if (bReady && !bWasReady) {
    m_connectDelay = kConnectDelay;
    m_bGivenUp = false;
    m_awaySince.reset();
    m_events.Connected();
  }
  HandleAnswers(now);
  if (!bAlive && bReady) {
    Lost(strError, now);
  } else if (!bAlive) {
    ConnectionFailed(strError, now);
  }
}

void CSendEngine::HandleAnswers(Clock::time_point now) {
  for (const IngressAnswer& answer : m_vecAnswers) {
    PendingRecord* pRecord = m_inFlight.Find(answer.u64RequestId);
    if (pRecord == nullptr) {
      continue;
    }
    if (answer.uStatus != 0) {
      HandleRefusal(*pRecord, answer.uStatus, now);
    } else {
      m_events.Accepted(*pRecord);
      m_inFlight.Release(*pRecord);
    }
  }
  m_vecAnswers.clear();
}

void CSendEngine::HandleRefusal(PendingRecord& record, uint32_t uStatus, Clock::time_point now) {
  const milliseconds delay = m_settings.retry ? kRetryDelay : kLongRetryDelay;
  const bool bFinal = m_settings.bKnowsFinalRefusals && IsRecordAtFault(uStatus);
  record.bMayBeTaken |= IsOutcomeUnknown(uStatus);
  if (bFinal || !TriesAgain(record, now, delay)) {
    FailRefused(record, uStatus);
    return;
  }
  record.uLastStatus = uStatus;
  m_inFlight.MarkToSendAgain(record, now + delay);
  m_events.Refused(uStatus);
}

// Whether there is time for another try after the delay.
bool CSendEngine::TriesAgain(PendingRecord& record, Clock::time_point now, milliseconds delay) {
  if (m_settings.retry && !record.giveUp) {
    record.giveUp = now + *m_settings.retry;
  }
  return m_bRetrying && (!record.giveUp || now + delay < *record.giveUp);
}

void CSendEngine::Drop(const std::string& strWhy) {
  if (m_connection.IsReady()) {
    Lost(strWhy, Clock::now());
  } else if (m_connection.IsOpen()) {
    ConnectionFailed(strWhy, Clock::now());
  }
}

void CSendEngine::Lost(const std::string& strWhy, Clock::time_point now) {
  Close();
  m_awaySince = now;
  // A host that stops still listens for a moment.
  m_nextConnect = now + m_connectDelay;
  m_events.Disconnected(strWhy);
  if (!m_bRetrying || m_settings.retry == milliseconds{0}) {
    GiveUp();
    return;
  }
  // None of this needs memory, for the lack of which a record would wait for an answer that cannot come.
  for (PendingRecord* pRecord : m_inFlight.InOrder(true)) {
    if (TriesAgain(*pRecord, now, milliseconds{0})) {
      pRecord->uLastStatus = 0;
      pRecord->bMayBeTaken = true;
      m_inFlight.MarkToSend(*pRecord);
    } else {
      Fail(*pRecord, SendFailure::NoAnswer, 0);
    }
  }
}

void CSendEngine::GiveUp() {
  m_bGivenUp = true;
  for (PendingRecord* pRecord : m_inFlight.InOrder(false)) {
    if (pRecord->state == PendingRecord::State::ToSend && pRecord->uLastStatus != 0) {
      FailRefused(*pRecord, pRecord->uLastStatus);
    } else {
      Fail(*pRecord, pRecord->bSent ? SendFailure::NoAnswer : SendFailure::NotSent, 0);
    }
  }
  m_inFlight.ForgetQueue();
}

// An earlier sending may have been taken, but for the record's own fault none was.
void CSendEngine::FailRefused(PendingRecord& record, uint32_t uStatus) {
  const bool bUnknown = record.bMayBeTaken && !IsRecordAtFault(uStatus);
  Fail(record, bUnknown ? SendFailure::NoAnswer : SendFailure::Refused, uStatus);
}

void CSendEngine::Fail(PendingRecord& record, SendFailure failure, uint32_t uStatus) {
  m_events.Failed(record, failure, uStatus);
  m_inFlight.Release(record);
}

std::optional<CSendEngine::Clock::time_point> CSendEngine::NextTurn() const {
  if (!m_connection.IsOpen()) {
    return m_nextConnect;
  }
  if (!m_connection.IsReady()) {
    return m_welcomeBy;
  }
  // With a full window, or much unsent, an answer or a writable socket comes before anything can be sent.
  return CanSend() ? m_inFlight.NextDue() : std::nullopt;
}
