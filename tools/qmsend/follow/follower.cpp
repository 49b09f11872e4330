#include "tools/qmsend/follow/follower.h"

#include <algorithm>
#include <utility>

#include "client/core/status_words.h"
#include "host/protocol/sender_guid.h"
#include "tools/qmsend/status_text.h"

namespace {

using std::chrono::milliseconds;

constexpr size_t kLargestWindow = 16384;
constexpr unsigned int kReadsATurn = 8;
constexpr milliseconds kPollInterval{250};
constexpr milliseconds kNoteInterval{1000};
constexpr milliseconds kIdleWait{1000};
// How long an interrupted program waits for outstanding answers.
constexpr milliseconds kInterruptGrace{5000};
constexpr std::chrono::minutes kRefusalsInterval{1};
// Of lines that are passed over only so many are named in that time; the others are counted.
constexpr std::chrono::minutes kNamingInterval{1};
constexpr unsigned int kNamedAnInterval = 100;

// The file may have grown since, so that more of its head is known.
bool IsSamePlace(const FollowPosition& noted, const FollowPosition& now) {
  return noted.u64Device == now.u64Device && noted.u64Inode == now.u64Inode && noted.u64Offset == now.u64Offset &&
         noted.strBefore == now.strBefore && now.strHead.compare(0, noted.strHead.size(), noted.strHead) == 0;
}

}  // namespace

CFollower::CFollower(const SendOptions& options)
    : m_options(options), m_terminal(false), m_position(options.strPosition) {}

int CFollower::Run() {
  if (!Prepare()) {
    return kExitUsageOrConnection;
  }
  Loop();
  return Finish();
}

bool CFollower::Prepare() {
  std::string strError;
  FollowPosition position;
  timespec noted{};
  bool bResumes = false;
  bool bGood = m_builder.Configure(m_options.message, strError) && m_position.Lock(strError);
  if (bGood) {
    const auto loaded = m_position.Load(m_options.strFollow, position, noted, strError);
    bResumes = loaded == CPositionFile::Loaded::Some;
    bGood = loaded != CPositionFile::Loaded::Failed;
    m_noted = position;
  }
  if (bGood && !bResumes && !CLogFile::Open(m_options.strFollow, strError)) {
    // It is waited for, and so is what it may have been rotated to before it is first seen, by this run or the next.
    bGood = errno == ENOENT;
    bResumes = true;
    position.strLog = m_options.strFollow;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &noted);  // the clock of files
    std::string strLater;                            // is told where a position of the log cannot be noted either
    static_cast<void>(bGood && m_position.Note(position, strLater));
  }
  if (!bGood) {
    m_terminal.Line(strError);
    return false;
  }
  SendSettings settings;
  settings.strSocket = m_options.strSocket;
  settings.sender = SenderGuid(m_options.strSender);
  settings.bKnowsFinalRefusals = true;
  ISendEvents& events = *this;
  m_pEngine = std::make_unique<CSendEngine>(std::move(settings), events);
  m_pTail = std::make_unique<CLogTail>(m_options.strFollow, m_options.mode, 0,
                                       [this](const std::string& strLine) { m_terminal.Line(strLine); });
  if (bResumes) {
    m_pTail->StartAt(position, noted);
  } else {
    m_pTail->StartAtBeginning();
  }
  return true;
}

void CFollower::Loop() {
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (!GoesOn(now)) {
      return;
    }
    m_pEngine->Prepare(now);
    FindLog(now);
    SendLines(now);
    m_pEngine->Exchange();
    NoteIfDue(now);
    if (!m_bInterrupted || !m_pEngine->Empty()) {
      Wait(Clock::now());
    }
  }
}

bool CFollower::GoesOn(Clock::time_point now) {
  const int iSignals = CInterrupt::Count();
  if (iSignals > 0 && !m_bInterrupted) {
    m_bInterrupted = true;
    m_stopBy = now + kInterruptGrace;
    m_pEngine->StopRetrying();
  }
  if (m_pEngine->IsReady() && !TakeLimits()) {
    return false;
  }
  return !m_bInterrupted || (!m_pEngine->Empty() && now < m_stopBy && iSignals < 2 && m_pEngine->IsReady());
}

// Those of the present host, which may have changed with its configuration. False when it takes no record at all.
bool CFollower::TakeLimits() {
  const IngressWelcome& welcome = m_pEngine->Welcome();
  const size_t uAround = kIngressMessageHeaderSize + m_builder.Overhead();
  if (welcome.uMaxFrame <= uAround) {
    m_terminal.Line("the host takes no frame long enough for a record");
    m_bNoRoomForARecord = true;
    return false;
  }
  m_uWindow = std::min<size_t>(welcome.uWindow, kLargestWindow);
  m_pEngine->LimitRecords(m_uWindow);
  m_pTail->LimitRecords(welcome.uMaxFrame - uAround);
  return true;
}

// Also while no host is there: what is open, and noted, is not lost when it is rotated meanwhile.
void CFollower::FindLog(Clock::time_point now) {
  if (!m_pTail->Here().pFile && now >= m_nextRead && !m_pTail->Read()) {
    m_nextRead = now + kPollInterval;
  }
  if (!m_lines.Mark().pFile && m_pTail->Here().pFile) {
    m_lines.Skip(m_pTail->Here());
  }
}

bool CFollower::MaySend() const {
  return !m_bInterrupted && m_pEngine->HasRoom() && m_pEngine->CanSend() && m_lines.BehindNote() < m_uWindow;
}

void CFollower::SendLines(Clock::time_point now) {
  unsigned int uReads = 0;
  while (MaySend() && now >= m_nextRead) {
    Record line;
    LogPlace end;
    if (m_pTail->Next(line, end)) {
      SendLine(line, std::move(end));
    } else if (!m_pTail->Read()) {
      m_nextRead = now + kPollInterval;
    } else if (++uReads == kReadsATurn) {
      return;
    }
  }
}

void CFollower::SendLine(const Record& line, LogPlace end) {
  const bool bZeroByte = line.svBytes.find('\0') != std::string_view::npos;
  if (line.bTooLong || bZeroByte) {
    PassOver(line.bTooLong ? CFailureReport::Cause::TooLong : CFailureReport::Cause::ZeroByte, 0, end.u64Offset,
             line.svBytes, line.bTooLong);
  }
  if (line.u64Length == 0 || line.bTooLong || bZeroByte) {
    m_lines.Skip(std::move(end));
    return;
  }
  PendingRecord& pending = m_pEngine->Take();
  pending.uType = m_builder.Type();
  pending.uSource = end.u64Offset;
  pending.u64Number = m_lines.Add(std::move(end));
  m_builder.Build(line.svBytes, pending.strPayload);
  m_pEngine->Submit(pending);
}

void CFollower::PassOver(CFailureReport::Cause cause, uint32_t uStatus, uint64_t u64End, std::string_view svHead,
                         bool bMore) {
  ++m_u64PassedOver;
  const Clock::time_point now = Clock::now();
  if (now >= m_nextNaming) {
    TellUnnamed();
    m_nextNaming = now + kNamingInterval;
    m_uNamed = 0;
  }
  if (++m_uNamed > kNamedAnInterval) {
    ++m_u64Unnamed;
    return;
  }
  m_terminal.Line(m_options.strFollow + ", line up to byte " + std::to_string(u64End) + ": " +
                  CauseText(cause, uStatus) + ": " + Excerpt(svHead, bMore));
}

void CFollower::TellUnnamed() {
  if (m_u64Unnamed > 0) {
    m_terminal.Line(m_options.strFollow + ": " + std::to_string(std::exchange(m_u64Unnamed, 0)) +
                    " more lines that cannot be sent were passed over");
  }
}

bool CFollower::Note() {
  const LogPlace& mark = m_lines.Mark();
  if (!m_lines.HasMoved()) {
    return true;
  }
  FollowPosition position;
  position.strLog = m_options.strFollow;
  position.u64Device = mark.pFile->Device();
  position.u64Inode = mark.pFile->Inode();
  position.u64Offset = mark.u64Offset;
  position.strHead = mark.pFile->Head();
  position.strBefore = mark.strBefore;
  // The time of the position's file tells what was written to the log's files since, so it is not written for nothing.
  if (IsSamePlace(m_noted, position)) {
    m_lines.Noted();
    return true;
  }
  std::string strError;
  if (!m_position.Note(position, strError)) {
    if (!std::exchange(m_bToldUnnoted, true)) {
      m_terminal.Line(strError + "; it is tried again, and no more than a window of lines is sent meanwhile");
    }
    return false;
  }
  if (std::exchange(m_bToldUnnoted, false)) {
    m_terminal.Line("the position is noted again");
  }
  m_noted = std::move(position);
  m_lines.Noted();
  return true;
}

// Half a window goes on being sent while the other half is noted.
void CFollower::NoteIfDue(Clock::time_point now) {
  const bool bFull = !m_bToldUnnoted && m_lines.SettledSinceNote() >= std::max<size_t>(m_uWindow / 2, 1);
  if (m_lines.HasMoved() && (bFull || now >= m_nextNote)) {
    static_cast<void>(Note());
    m_nextNote = now + kNoteInterval;
  }
}

void CFollower::Wait(Clock::time_point now) {
  Clock::time_point until = now + kIdleWait;
  if (const auto next = m_pEngine->NextTurn()) {
    until = std::min(until, *next);
  }
  if (MaySend() || !m_pTail->Here().pFile) {
    until = std::min(until, m_nextRead);
  }
  if (m_lines.HasMoved()) {
    until = std::min(until, m_nextNote);
  }
  if (m_bInterrupted) {
    until = std::min(until, m_stopBy);
  }
  pollfd descriptor{m_pEngine->Descriptor(), static_cast<short>(POLLIN | (m_pEngine->WantsToWrite() ? POLLOUT : 0)), 0};
  const auto left = std::chrono::ceil<milliseconds>(until - now);
  m_interrupt.Wait(&descriptor, descriptor.fd >= 0 ? 1 : 0,
                   static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
}

int CFollower::Finish() {
  const bool bNoted = Note();
  TellUnnamed();
  if (!m_options.bQuiet) {
    m_terminal.Line("followed " + m_options.strFollow + ": accepted " + std::to_string(m_u64Accepted) +
                    ", passed over " + std::to_string(m_u64PassedOver) + ", sent and not settled " +
                    std::to_string(m_lines.BehindNote() - m_lines.SettledSinceNote()));
  }
  if (m_bNoRoomForARecord) {
    return kExitUsageOrConnection;
  }
  return bNoted ? kExitAllAccepted : kExitSomeNotAccepted;
}

void CFollower::Accepted(const PendingRecord& record) {
  ++m_u64Accepted;
  m_lines.Settle(record.u64Number);
}

// What may be taken another time stays unsettled: the next run sends it.
void CFollower::Failed(const PendingRecord& record, SendFailure failure, uint32_t uStatus) {
  const bool bFinal = failure == SendFailure::TooLong || (failure == SendFailure::Refused && IsRecordAtFault(uStatus));
  if (bFinal) {
    PassOver(CauseOf(failure), uStatus, record.uSource,
             std::string_view(record.strPayload).substr(m_builder.Overhead()), false);
    m_lines.Settle(record.u64Number);
  }
}

void CFollower::Refused(uint32_t uStatus) {
  const Clock::time_point now = Clock::now();
  if (now >= m_nextRefusal) {
    m_nextRefusal = now + kRefusalsInterval;
    m_terminal.Line("lines are not accepted now and are sent again: status " + StatusText(uStatus));
  }
}

void CFollower::Connected() {
  if (std::exchange(m_bToldAway, false)) {
    m_terminal.Line("connected");
  }
}

void CFollower::Disconnected(const std::string& strWhy) {
  m_bToldAway = true;
  m_terminal.Line(strWhy + "; the host is waited for");
}

void CFollower::CannotConnect(const std::string& strWhy) {
  if (!std::exchange(m_bToldAway, true)) {
    m_terminal.Line(strWhy + "; the host is waited for");
  }
}
