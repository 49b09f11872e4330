#include "tools/qmsend/sender.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "host/protocol/combo_payload.h"
#include "host/protocol/sender_guid.h"
#include "plugin/compctx/message_types.h"

namespace {

using std::chrono::milliseconds;

constexpr size_t kMaxRecordsInFlight = 16384;
constexpr unsigned int kReadsATurn = 8;
// How long an interrupted program waits for outstanding answers.
constexpr milliseconds kInterruptGrace{5000};
constexpr milliseconds kIdleWait{1000};
constexpr milliseconds kProgressWait{250};

// Bytes of a message's payload before the record.
size_t OverheadOf(uint32_t uType) {
  return uType == LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA ? kComboHeaderSize : 0;
}

}  // namespace

CSender::CSender(const SendOptions& options)
    : m_options(options),
      m_terminal(!options.bQuiet),
      m_report([this](const std::string& strLine) { m_terminal.Line(strLine); },
               [this](size_t uSource) { return m_pInput->SourceName(uSource); }),
      m_start(Clock::now()) {}

int CSender::Run() {
  if (!Prepare() || !ConnectFirst()) {
    return kExitUsageOrConnection;
  }
  const IngressWelcome& welcome = m_pEngine->Welcome();
  const size_t uAround = kIngressMessageHeaderSize + m_builder.Overhead();
  if (welcome.uMaxFrame <= uAround) {
    m_terminal.Line("the host takes no frame long enough for a record");
    return kExitUsageOrConnection;
  }
  const size_t uLongest = m_options.bJsonRecords ? kJsonBytesAround + kJsonBytesARecordByte * welcome.uMaxFrame
                                                 : welcome.uMaxFrame - uAround;
  m_pInput = std::make_unique<CInput>(m_options.vecFiles, m_options.mode, uLongest,
                                      [this](const std::string& strLine) { m_terminal.Line(strLine); });
  m_pEngine->LimitRecords(std::min<size_t>(welcome.uWindow, kMaxRecordsInFlight));
  Loop();
  return Finish();
}

bool CSender::Prepare() {
  std::string strError;
  if (!m_builder.Configure(m_options.message, strError)) {
    m_terminal.Line(strError);
    return false;
  }
  strError = FindUnreadableFile(m_options.vecFiles);
  if (!strError.empty()) {
    m_terminal.Line(strError);
    return false;
  }
  if (!m_options.strSummary.empty() && !m_summary.Open(m_options.strSummary, strError)) {
    m_terminal.Line(strError);
    return false;
  }
  SendSettings settings;
  settings.strSocket = m_options.strSocket;
  settings.sender = SenderGuid(m_options.strSender);
  settings.retry = std::chrono::seconds(m_options.uRetrySeconds);
  ISendEvents& events = *this;
  m_pEngine = std::make_unique<CSendEngine>(std::move(settings), events);
  return true;
}

bool CSender::ConnectFirst() {
  while (!m_pEngine->IsReady()) {
    m_pEngine->Prepare(Clock::now());
    m_pEngine->Exchange();
    if (m_pEngine->HasGivenUp() || CInterrupt::Count() > 0) {
      m_terminal.Line((m_strNoHost.empty() ? "interrupted" : m_strNoHost) + "; nothing was sent");
      return false;
    }
    if (!m_pEngine->IsReady()) {
      Wait(Clock::now(), false);
    }
  }
  m_start = Clock::now();
  return true;
}

void CSender::Loop() {
  for (;;) {
    const Clock::time_point now = Clock::now();
    NoticeInterrupts(now);
    if (!m_pEngine->HasGivenUp()) {
      m_pEngine->Prepare(now);
      SendNew();
      m_pEngine->Exchange();
    }
    if (m_pEngine->HasGivenUp()) {
      if (!m_strNoHost.empty()) {
        m_terminal.Line(m_strNoHost);
      }
      return;
    }
    if ((m_bInputEnded || m_bInterrupted) && m_pEngine->Empty()) {
      return;
    }
    if (m_terminal.HasProgress()) {
      m_terminal.Progress(m_counts, now);
    }
    Wait(Clock::now(), true);
  }
}

void CSender::NoticeInterrupts(Clock::time_point now) {
  const int iSignals = CInterrupt::Count();
  if (iSignals > 0 && !m_bInterrupted) {
    m_bInterrupted = true;
    m_stopBy = now + kInterruptGrace;
    m_pEngine->StopRetrying();
  }
  if (m_bInterrupted && (now >= m_stopBy || iSignals > 1 || !m_pEngine->IsReady())) {
    m_pEngine->GiveUp();
  }
}

void CSender::SendNew() {
  unsigned int uReads = 0;
  m_bInputBlocked = false;
  while (!m_bInputEnded && !m_bInterrupted && m_pEngine->HasRoom() && m_pEngine->CanSend()) {
    Record record;
    switch (m_pInput->Next(record)) {
      case CRecordReader::Step::End:
        m_bInputEnded = true;
        break;
      case CRecordReader::Step::NeedInput:
        if (!m_pInput->IsAlwaysReady()) {
          m_bInputBlocked = true;
          return;
        }
        if (uReads++ == kReadsATurn) {
          return;
        }
        m_pInput->Read();
        break;
      case CRecordReader::Step::Record:
        if (record.u64Length == 0) {
          ++m_u64Skipped;
        } else if (record.bTooLong) {
          m_report.Add(m_pInput->Source(), record.u64Number, CFailureReport::Cause::TooLong, 0, record.svBytes, true);
        } else {
          SendRecord(record);
        }
        break;
    }
  }
}

void CSender::SendRecord(const Record& record) {
  const auto fnNotSent = [&](CFailureReport::Cause cause) {
    m_report.Add(m_pInput->Source(), record.u64Number, cause, 0, record.svBytes, false);
  };
  const bool bJson = m_options.bJsonRecords;
  if (bJson && !ReadJsonRecord(record.svBytes, m_options.message.bNoSave, m_jsonRecord)) {
    fnNotSent(CFailureReport::Cause::NoRecord);
    return;
  }
  if (bJson ? m_jsonRecord.bZeroByte : record.svBytes.find('\0') != std::string_view::npos) {
    fnNotSent(CFailureReport::Cause::ZeroByte);
    return;
  }
  PendingRecord& pending = m_pEngine->Take();
  pending.uSource = m_pInput->Source();
  pending.u64Number = record.u64Number;
  if (bJson) {
    pending.uType = m_jsonRecord.uType;
    pending.sender = m_jsonRecord.sender;
    std::swap(pending.strPayload, m_jsonRecord.strPayload);
  } else {
    pending.uType = m_builder.Type();
    m_builder.Build(record.svBytes, pending.strPayload);
  }
  ++m_counts.u64Sent;
  m_pEngine->Submit(pending);
}

void CSender::Accepted(const PendingRecord&) {
  ++m_counts.u64Accepted;
}

void CSender::Failed(const PendingRecord& record, SendFailure failure, uint32_t uStatus) {
  if (failure == SendFailure::Refused) {
    ++m_counts.u64Refused;
  }
  m_report.Add(record.uSource, record.u64Number, CauseOf(failure), uStatus,
               std::string_view(record.strPayload).substr(OverheadOf(record.uType)), false);
}

void CSender::Connected() {
  m_strNoHost.clear();
  if (m_pInput) {
    m_terminal.Line("connected again");
  }
}

void CSender::Disconnected(const std::string& strWhy) {
  if (!m_bInputEnded || !m_pEngine->Empty()) {
    m_terminal.Line(strWhy);
  }
}

// bInput: for more input, too.
void CSender::Wait(Clock::time_point now, bool bInput) {
  std::array<pollfd, 2> aDescriptors{};
  size_t uCount = 0;
  Clock::time_point until = now + (m_terminal.HasProgress() ? kProgressWait : kIdleWait);
  if (const auto next = m_pEngine->NextTurn()) {
    until = std::min(until, *next);
  }
  if (m_pEngine->Descriptor() >= 0) {
    const short iEvents = static_cast<short>(POLLIN | (m_pEngine->WantsToWrite() ? POLLOUT : 0));
    aDescriptors[uCount++] = {m_pEngine->Descriptor(), iEvents, 0};
  }
  const size_t uInputAt = uCount;
  if (bInput && !m_bInputEnded && !m_bInterrupted && m_pEngine->HasRoom() && m_pEngine->CanSend()) {
    if (m_bInputBlocked) {
      aDescriptors[uCount++] = {m_pInput->Descriptor(), POLLIN, 0};
    } else {
      until = now;
    }
  }
  if (m_bInterrupted) {
    until = std::min(until, m_stopBy);
  }
  const auto left = std::chrono::ceil<milliseconds>(until - now);
  m_interrupt.Wait(aDescriptors.data(), uCount, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
  if (uCount > uInputAt && aDescriptors[uInputAt].revents != 0) {
    m_pInput->Read();
  }
}

int CSender::Finish() {
  m_terminal.ClearProgress();
  m_report.Finish();
  bool bUnread = false;
  if (!m_bInputEnded) {
    for (const std::string& strLine : m_pInput->Unread()) {
      m_terminal.Line(strLine);
      bUnread = true;
    }
  }
  if (!m_options.bQuiet) {
    PrintSummary();
  }
  const bool bWritten = WriteSummary();
  return m_report.Total() > 0 || bUnread || m_pInput->HadErrors() || !bWritten ? kExitSomeNotAccepted
                                                                               : kExitAllAccepted;
}

void CSender::PrintSummary() {
  std::string strSummary = "accepted " + std::to_string(m_counts.u64Accepted) + ", refused " +
                           std::to_string(m_counts.u64Refused) + ", skipped " + std::to_string(m_u64Skipped) +
                           " (empty), ";
  constexpr std::pair<CFailureReport::Cause, const char*> kNamed[] = {
      {CFailureReport::Cause::TooLong, "too long "},
      {CFailureReport::Cause::ZeroByte, "with a zero byte "},
      {CFailureReport::Cause::NoRecord, "malformed "},
      {CFailureReport::Cause::NoAnswer, "without answer "}};
  for (const auto& [cause, pszText] : kNamed) {
    if (m_report.Count(cause) > 0) {
      strSummary += pszText + std::to_string(m_report.Count(cause)) + ", ";
    }
  }
  m_terminal.Line(strSummary + RateText(m_counts.u64Accepted, Clock::now() - m_start));
}

bool CSender::WriteSummary() {
  std::string strError;
  if (m_summary.Write({{"accepted", m_counts.u64Accepted},
                       {"refused", m_counts.u64Refused},
                       {"skipped", m_u64Skipped},
                       {"too_long", m_report.Count(CFailureReport::Cause::TooLong)},
                       {"zero_byte", m_report.Count(CFailureReport::Cause::ZeroByte)},
                       {"malformed", m_report.Count(CFailureReport::Cause::NoRecord)},
                       {"unanswered", m_report.Count(CFailureReport::Cause::NoAnswer)}},
                      strError)) {
    return true;
  }
  m_terminal.Line(strError);
  return false;
}
