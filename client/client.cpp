#include "client/client.h"

#include <unistd.h>

#include <climits>
#include <cstring>
#include <new>
#include <utility>

#include "client/core/message_builder.h"
#include "host/protocol/sender_guid.h"

namespace {

// A frame's length is 32 bits; the rest is for what stands around the record.
constexpr size_t kLongestRecord = UINT32_MAX - 4096;

SendSettings SettingsOf(const qm_client_options& options) {
  SendSettings settings;
  settings.strSocket = options.socket;
  settings.sender = SenderGuid(options.sender);
  settings.uMaxRecords = options.max_records;
  settings.uMaxBytes = options.max_bytes;
  if (options.retry_ms >= 0) {
    settings.retry = std::chrono::milliseconds(options.retry_ms);
  }
  settings.bKnowsFinalRefusals = true;
  return settings;
}

bool IsKnown(const qm_client_record& record) {
  return record.kind >= QM_CLIENT_EDR && record.kind <= QM_CLIENT_TAG && record.priority >= QM_CLIENT_LOW &&
         record.priority <= QM_CLIENT_REAL && (record.flags & ~(QM_CLIENT_PUBLIC | QM_CLIENT_NO_SAVE)) == 0;
}

qm_client_outcome OutcomeOf(SendFailure failure) {
  switch (failure) {
    case SendFailure::Refused:
      return QM_CLIENT_REFUSED;
    case SendFailure::TooLong:
      return QM_CLIENT_OVERLONG;
    case SendFailure::NoAnswer:
      return QM_CLIENT_NO_ANSWER;
    case SendFailure::NotSent:
      break;
  }
  return QM_CLIENT_NOT_SENT;
}

}  // namespace

qm_client::qm_client(const qm_client_options& options)
    : m_iProcess(::getpid()),
      m_fnResult(options.on_result),
      m_fnConnection(options.on_connection),
      m_pUser(options.user),
      m_engine(SettingsOf(options), *this) {}

int qm_client::Enter() noexcept {
  if (IsForked()) {
    return QM_CLIENT_E_FORKED;
  }
  if (m_bInside.test_and_set(std::memory_order_acquire)) {
    return QM_CLIENT_E_BUSY;
  }
  m_iReported = 0;
  return QM_CLIENT_OK;
}

bool qm_client::IsForked() const noexcept {
  return ::getpid() != m_iProcess;
}

qm_client::Deadline qm_client::After(int iTimeoutMs) {
  return iTimeoutMs < 0 ? Deadline() : Clock::now() + std::chrono::milliseconds(iTimeoutMs);
}

void qm_client::Turn() {
  if (m_bAnswersLost) {
    m_engine.Drop("out of memory");
    m_bAnswersLost = false;
  }
  try {
    m_engine.Prepare(Clock::now());
    m_engine.Exchange();
  } catch (const std::bad_alloc&) {
    m_bAnswersLost = true;
    Arm();
    throw;
  }
  Arm();
}

void qm_client::Arm() {
  m_wake.Watch(m_engine.Descriptor(), m_engine.WantsToWrite());
  m_wake.WakeAt(m_bAnswersLost ? Clock::time_point{} : m_engine.NextTurn());
}

bool qm_client::WaitAndTurn(const Deadline& until) {
  if (until && Clock::now() >= *until) {
    return false;
  }
  m_wake.Wait(until);
  Turn();
  return true;
}

int qm_client::Build(const qm_client_record& record) {
  if (record.data == nullptr || !IsKnown(record)) {
    return QM_CLIENT_E_ARGUMENT;
  }
  if (record.length == 0) {
    return QM_CLIENT_E_EMPTY;
  }
  MessageOptions options;
  options.kind = static_cast<RecordKind>(record.kind);
  options.priority = static_cast<RecordPriority>(record.priority);
  options.bPublic = (record.flags & QM_CLIENT_PUBLIC) != 0;
  options.bNoSave = (record.flags & QM_CLIENT_NO_SAVE) != 0;
  options.strProduct = record.product == nullptr ? "" : record.product;
  options.strCombo = record.combo == nullptr ? "" : record.combo;
  CMessageBuilder builder;
  std::string strError;
  if (!builder.Configure(options, strError)) {
    return QM_CLIENT_E_ARGUMENT;
  }
  const size_t uFrame = kIngressMessageHeaderSize + builder.Overhead() + record.length;
  if (record.length > kLongestRecord || (m_engine.IsReady() && uFrame > m_engine.Welcome().uMaxFrame)) {
    return QM_CLIENT_E_TOO_LONG;
  }
  const std::string_view svRecord(static_cast<const char*>(record.data), record.length);
  if (svRecord.find('\0') != std::string_view::npos) {
    return QM_CLIENT_E_ZERO_BYTE;
  }
  m_uType = builder.Type();
  builder.Build(svRecord, m_strPayload);
  return QM_CLIENT_OK;
}

int qm_client::Send(const qm_client_record& record, int iTimeoutMs) {
  const int iBuilt = Build(record);
  if (iBuilt != QM_CLIENT_OK) {
    return iBuilt;
  }
  if (!m_engine.HasRoom()) {
    const Deadline until = After(iTimeoutMs);
    Turn();
    while (!m_engine.HasRoom()) {
      if (!WaitAndTurn(until)) {
        return QM_CLIENT_E_TIMEOUT;
      }
    }
  }
  PendingRecord& pending = m_engine.Take();
  pending.uType = m_uType;
  pending.u64Number = record.cookie;
  pending.strPayload.swap(m_strPayload);
  ++m_uPending;
  try {
    m_engine.Submit(pending);
  } catch (const std::bad_alloc&) {
    --m_uPending;
    throw;
  }
  try {
    Turn();
  } catch (const std::bad_alloc&) {
    // The record itself is taken; the next call goes on.
  }
  return QM_CLIENT_OK;
}

int qm_client::Process(int iTimeoutMs) {
  const Deadline until = After(iTimeoutMs);
  Turn();
  while (m_iReported == 0 && m_uPending > 0 && WaitAndTurn(until)) {
  }
  return m_iReported;
}

int qm_client::Flush(int iTimeoutMs) {
  const Deadline until = After(iTimeoutMs);
  Turn();
  while (m_uPending > 0) {
    if (!WaitAndTurn(until)) {
      return QM_CLIENT_E_TIMEOUT;
    }
  }
  return QM_CLIENT_OK;
}

void qm_client::Report(const PendingRecord& record, qm_client_outcome outcome, uint32_t uStatus) {
  --m_uPending;
  m_iReported += m_iReported < INT_MAX ? 1 : 0;
  if (m_fnResult != nullptr) {
    m_fnResult(m_pUser, record.u64Number, outcome, uStatus);
  }
}

void qm_client::ReportConnection(bool bConnected, const std::string& strWhy) {
  if (m_fnConnection != nullptr) {
    m_fnConnection(m_pUser, bConnected ? 1 : 0, strWhy.c_str());
  }
}

void qm_client::Accepted(const PendingRecord& record) {
  Report(record, QM_CLIENT_ACCEPTED, 0);
}

void qm_client::Failed(const PendingRecord& record, SendFailure failure, uint32_t uStatus) {
  // This host takes less than an earlier one, which may have taken the record.
  const bool bUnknown = failure == SendFailure::TooLong && record.bMayBeTaken;
  Report(record, bUnknown ? QM_CLIENT_NO_ANSWER : OutcomeOf(failure), uStatus);
}
