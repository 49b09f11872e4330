#include "tools/qmsend/sender.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <tuple>
#include <utility>

#include "host/protocol/sender_guid.h"

namespace {

using std::chrono::milliseconds;

constexpr size_t kMaxSlots = 16384;
constexpr size_t kMaxBytesInFlight = 32U << 20;
constexpr size_t kMaxOutput = 1U << 20;
constexpr unsigned int kReadsATurn = 8;
constexpr milliseconds kRetryDelay{100};
// How long an interrupted program waits for outstanding answers.
constexpr milliseconds kInterruptGrace{5000};
constexpr milliseconds kIdleWait{1000};
constexpr milliseconds kProgressWait{250};

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
  const IngressWelcome& welcome = m_connection.Welcome();
  const size_t uAround = kIngressMessageHeaderSize + m_builder.Overhead();
  if (welcome.uMaxFrame <= uAround) {
    m_terminal.Line("the host takes no frame long enough for a record");
    return kExitUsageOrConnection;
  }
  m_pInput = std::make_unique<CInput>(m_options.vecFiles, m_options.mode, welcome.uMaxFrame - uAround,
                                      [this](const std::string& strLine) { m_terminal.Line(strLine); });
  m_pInFlight = std::make_unique<CInFlight>(std::min<size_t>(welcome.uWindow, kMaxSlots), kMaxBytesInFlight);
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
  m_sender = SenderGuid(m_options.strSender);
  return true;
}

bool CSender::ConnectFirst() {
  const auto giveUp = Clock::now() + std::chrono::seconds(m_options.uRetrySeconds);
  std::string strError;
  while (!m_connection.Open(m_options.strSocket, m_interrupt, strError)) {
    if (Clock::now() >= giveUp || CInterrupt::Count() > 0) {
      m_terminal.Line(strError + "; nothing was sent");
      return false;
    }
    strError.clear();
    m_interrupt.Wait(nullptr, 0, static_cast<int>(kRetryDelay.count()));
  }
  m_start = Clock::now();
  return true;
}

void CSender::Loop() {
  while (!m_bOver) {
    const Clock::time_point now = Clock::now();
    NoticeInterrupts(now);
    if (!m_connection.IsOpen() && !m_bOver) {
      Reconnect(now);
    }
    if (m_connection.IsOpen()) {
      SendAgain(now);
      SendNew();
      Exchange();
    }
    if (m_bOver || ((m_bInputEnded || m_bInterrupted) && m_pInFlight->Empty())) {
      return;
    }
    if (m_terminal.HasProgress()) {
      m_terminal.Progress(m_counts, now);
    }
    Wait(Clock::now());
  }
}

void CSender::NoticeInterrupts(Clock::time_point now) {
  const int iSignals = CInterrupt::Count();
  if (iSignals > 0 && !m_bInterrupted) {
    m_bInterrupted = true;
    m_stopBy = now + kInterruptGrace;
  }
  if (m_bInterrupted && (now >= m_stopBy || iSignals > 1 || !m_connection.IsOpen())) {
    GiveUp();
  }
}

void CSender::Reconnect(Clock::time_point now) {
  if (now < m_nextConnect) {
    return;
  }
  std::string strError;
  if (m_connection.Open(m_options.strSocket, m_interrupt, strError)) {
    m_terminal.Line("connected again");
    return;
  }
  m_nextConnect = Clock::now() + kRetryDelay;
  if (Clock::now() >= m_lostAt + std::chrono::seconds(m_options.uRetrySeconds)) {
    m_terminal.Line(strError);
    GiveUp();
  }
}

bool CSender::HasSendRoom() const {
  return m_connection.Unsent() < kMaxOutput && m_pInFlight->OnWire() < m_connection.Welcome().uWindow;
}

void CSender::SendAgain(Clock::time_point now) {
  while (HasSendRoom()) {
    PendingRecord* pRecord = m_pInFlight->NextToSend(now);
    if (pRecord == nullptr) {
      return;
    }
    SendRecord(*pRecord);
  }
}

void CSender::SendNew() {
  unsigned int uReads = 0;
  m_bInputBlocked = false;
  while (!m_bInputEnded && !m_bInterrupted && m_pInFlight->HasRoom() && HasSendRoom()) {
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
        } else if (record.svBytes.find('\0') != std::string_view::npos) {
          m_report.Add(m_pInput->Source(), record.u64Number, CFailureReport::Cause::ZeroByte, 0, record.svBytes, false);
        } else {
          PendingRecord& pending = m_pInFlight->Take();
          pending.uSource = m_pInput->Source();
          pending.u64Number = record.u64Number;
          m_builder.Build(record.svBytes, pending.strPayload);
          m_pInFlight->Charge(pending);
          ++m_counts.u64Sent;
          SendRecord(pending);
        }
        break;
    }
  }
}

void CSender::SendRecord(PendingRecord& record) {
  // After a reconnection the host may take less than the one that the input was cut for.
  if (record.strPayload.size() + kIngressMessageHeaderSize > m_connection.Welcome().uMaxFrame) {
    Fail(record, CFailureReport::Cause::TooLong, 0);
    return;
  }
  const uint64_t u64RequestId = m_pInFlight->MarkSent(record);
  AppendMessage(m_connection.Output(), {m_builder.Type(), u64RequestId, m_sender, record.strPayload});
}

void CSender::Exchange() {
  std::string strError;
  const bool bAlive = m_connection.Flush(strError) && m_connection.Receive(m_vecAnswers, strError);
  const Clock::time_point now = Clock::now();
  HandleAnswers(now);
  if (!bAlive) {
    ConnectionLost(strError, now);
  }
}

void CSender::HandleAnswers(Clock::time_point now) {
  for (const IngressAnswer& answer : m_vecAnswers) {
    PendingRecord* pRecord = m_pInFlight->Find(answer.u64RequestId);
    if (pRecord == nullptr) {
      continue;
    }
    if (answer.uStatus != 0) {
      Refused(*pRecord, answer.uStatus, now);
    } else {
      ++m_counts.u64Accepted;
      m_pInFlight->Release(*pRecord);
    }
  }
  m_vecAnswers.clear();
}

void CSender::Refused(PendingRecord& record, uint32_t uStatus, Clock::time_point now) {
  record.uLastStatus = uStatus;
  if (!record.giveUp) {
    record.giveUp = now + std::chrono::seconds(m_options.uRetrySeconds);
  }
  if (now + kRetryDelay >= *record.giveUp || m_bInterrupted) {
    ++m_counts.u64Refused;
    Fail(record, CFailureReport::Cause::Refused, uStatus);
  } else {
    m_pInFlight->MarkToSend(record, now + kRetryDelay);
  }
}

void CSender::ConnectionLost(const std::string& strWhy, Clock::time_point now) {
  m_connection.Close();
  const bool bNothingLeft = m_bInputEnded && m_pInFlight->Empty();
  if (bNothingLeft) {
    return;
  }
  m_terminal.Line(strWhy);
  m_lostAt = now;
  m_nextConnect = now;
  if (m_options.uRetrySeconds == 0 || m_bInterrupted) {
    GiveUp();
    return;
  }
  m_pInFlight->ForEachUsed([&](PendingRecord& record) {
    if (record.state == PendingRecord::State::OnWire) {
      if (!record.giveUp) {
        record.giveUp = now + std::chrono::seconds(m_options.uRetrySeconds);
      }
      if (now >= *record.giveUp) {
        Fail(record, CFailureReport::Cause::NoAnswer, 0);
      } else {
        m_pInFlight->MarkToSend(record, now);
      }
    }
  });
}

void CSender::GiveUp() {
  m_bOver = true;
  std::vector<PendingRecord*> vecLeft;
  m_pInFlight->ForEachUsed([&](PendingRecord& record) { vecLeft.push_back(&record); });
  std::sort(vecLeft.begin(), vecLeft.end(), [](const PendingRecord* pLeft, const PendingRecord* pRight) {
    return std::tie(pLeft->uSource, pLeft->u64Number) < std::tie(pRight->uSource, pRight->u64Number);
  });
  for (PendingRecord* pRecord : vecLeft) {
    if (pRecord->state == PendingRecord::State::ToSend && pRecord->uLastStatus != 0) {
      ++m_counts.u64Refused;
      Fail(*pRecord, CFailureReport::Cause::Refused, pRecord->uLastStatus);
    } else {
      Fail(*pRecord, CFailureReport::Cause::NoAnswer, 0);
    }
  }
}

void CSender::Fail(PendingRecord& record, CFailureReport::Cause cause, uint32_t uStatus) {
  m_report.Add(record.uSource, record.u64Number, cause, uStatus,
               std::string_view(record.strPayload).substr(m_builder.Overhead()), false);
  m_pInFlight->Release(record);
}

void CSender::Wait(Clock::time_point now) {
  std::array<pollfd, 2> aDescriptors{};
  size_t uCount = 0;
  Clock::time_point until = now + (m_terminal.HasProgress() ? kProgressWait : kIdleWait);
  if (m_connection.IsOpen()) {
    const short iEvents = static_cast<short>(POLLIN | (m_connection.Unsent() > 0 ? POLLOUT : 0));
    aDescriptors[uCount++] = {m_connection.Descriptor(), iEvents, 0};
    if (const auto due = m_pInFlight->NextDue()) {
      until = std::min(until, *due);
    }
    const bool bWantInput = !m_bInputEnded && !m_bInterrupted && m_pInFlight->HasRoom() && HasSendRoom();
    if (bWantInput && m_bInputBlocked) {
      aDescriptors[uCount++] = {m_pInput->Descriptor(), POLLIN, 0};
    } else if (bWantInput) {
      until = now;
    }
  } else {
    until = std::min(until, m_nextConnect);
  }
  if (m_bInterrupted) {
    until = std::min(until, m_stopBy);
  }
  const auto left = std::chrono::ceil<milliseconds>(until - now);
  m_interrupt.Wait(aDescriptors.data(), uCount, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
  if (uCount == 2 && aDescriptors[1].revents != 0) {
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
                       {"unanswered", m_report.Count(CFailureReport::Cause::NoAnswer)}},
                      strError)) {
    return true;
  }
  m_terminal.Line(strError);
  return false;
}
