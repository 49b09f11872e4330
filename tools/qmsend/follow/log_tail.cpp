#include "tools/qmsend/follow/log_tail.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace {

// A rotated file that was not written to for so many seconds is left. A writer may keep it open for a moment.
constexpr time_t kLinger = 2;
// What is kept of the bytes before a place to recognise it: of several lines when they are short, since a log may hold
// the same short line at the same byte again.
constexpr size_t kKeptBefore = 48;

bool IsQuiet(const CLogFile& file) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  // A time in the future, after the clock was set back, is no reason to wait for it.
  return std::abs(now.tv_sec - file.Modified().tv_sec) > kLinger;
}

std::string Byte(uint64_t u64Offset) {
  return "byte " + std::to_string(u64Offset);
}

}  // namespace

CLogTail::CLogTail(std::string strLog, RecordMode mode, size_t uMaxRecord, Tell fnTell)
    : m_strLog(std::move(strLog)),
      m_cDelimiter(mode == RecordMode::Zeros ? '\0' : '\n'),
      m_reader(mode, uMaxRecord),
      m_uMaxRecord(uMaxRecord),
      m_fnTell(std::move(fnTell)) {}

void CLogTail::StartAtBeginning() {
  static_cast<void>(OpenLog());
}

void CLogTail::StartAt(const FollowPosition& position, const timespec& noted) {
  m_start = Start{position, noted};
  static_cast<void>(Resume());
}

// False when what may hold the position cannot be read now.
bool CLogTail::Resume() {
  auto& [position, noted] = *m_start;
  std::string strError;
  auto pFile = FindPosition(m_strLog, position, strError);
  if (!pFile && !strError.empty()) {
    TellWaitsFor(strError);
    return false;
  }
  if (pFile) {
    m_strTold.clear();
    if (pFile->Path() != m_strLog) {
      m_fnTell("goes on in " + pFile->Path() + " at " + Byte(position.u64Offset));
    }
    Open(std::move(pFile), position.u64Offset, position.strBefore);
    m_start.reset();
    return true;
  }
  const Successor successor = FindSuccessor(m_strLog, noted);
  if (!successor.strError.empty()) {
    TellWaitsFor(successor.strError);
    return false;
  }
  if (position.IsOfAFile()) {
    m_strTold.clear();
    m_fnTell("warning: what was read last of " + m_strLog + ", up to " + Byte(position.u64Offset) +
             ", is not there any more: truncated, removed or compressed, and compressed files are not read. What stood "
             "behind it is not sent");
    position = {};
  }
  TakeSuccessor(successor);
  if (!m_pFile && !OpenLog()) {
    return false;
  }
  m_start.reset();
  return true;
}

void CLogTail::LimitRecords(size_t uMaxRecord) {
  if (uMaxRecord == m_uMaxRecord) {
    return;
  }
  m_uMaxRecord = uMaxRecord;
  m_reader.Restart(uMaxRecord);
  if (m_pFile) {
    Open(m_pFile, m_u64Line, m_strBefore);
  }
}

void CLogTail::Open(std::shared_ptr<CLogFile> pFile, uint64_t u64Offset, std::string strBefore) {
  m_pFile = std::move(pFile);
  m_u64Line = u64Offset;
  m_u64Read = u64Offset;
  m_strBefore = std::move(strBefore);
  m_bLeaving = false;
  m_reader.Restart();
  static_cast<void>(::lseek(m_pFile->Descriptor(), static_cast<off_t>(u64Offset), SEEK_SET));
}

bool CLogTail::OpenLog() {
  std::string strError;
  auto pFile = CLogFile::Open(m_strLog, strError);
  if (!pFile) {
    TellWaitsFor(strError);
    return false;
  }
  m_strTold.clear();
  Open(std::move(pFile), 0, {});
  return true;
}

bool CLogTail::Next(Record& line, LogPlace& end) {
  if (!m_pFile) {
    return false;
  }
  switch (m_reader.Next(line)) {
    case CRecordReader::Step::Record:
      // The last line of a file that is left may have no newline.
      m_u64Line = std::min(m_u64Line + line.u64Length + 1, m_u64Read);
      if (line.bTooLong || m_bLeaving) {
        m_strBefore.clear();
      } else {
        m_strBefore += line.svBytes.substr(line.svBytes.size() - std::min(line.svBytes.size(), kKeptBefore));
        m_strBefore += m_cDelimiter;
        m_strBefore.erase(0, m_strBefore.size() - std::min(m_strBefore.size(), kKeptBefore + 1));
      }
      end = Here();
      return true;
    case CRecordReader::Step::NeedInput:
      break;
    case CRecordReader::Step::End:
      GoToSuccessor();
      break;
  }
  return false;
}

bool CLogTail::Read() {
  if (!m_pFile) {
    return m_start ? Resume() : OpenLog();
  }
  if (m_bLeaving) {  // and the next file was not to be had
    GoToSuccessor();
    return !m_bLeaving;
  }
  return ReadFile();
}

bool CLogTail::ReadFile() {
  const CRecordReader::Input input = m_reader.ReadOn(m_pFile->Descriptor());
  const int iError = errno;
  if (input == CRecordReader::Input::Some) {
    m_u64Read = static_cast<uint64_t>(std::max<off_t>(::lseek(m_pFile->Descriptor(), 0, SEEK_CUR), 0));
  }
  // After the read: what was read of a file that was truncated meanwhile may be anything.
  if (!m_pFile->IsIntact(m_u64Read, m_u64Line, m_strBefore)) {
    AfterTruncation();
    return true;
  }
  switch (input) {
    case CRecordReader::Input::Some:
      m_strTold.clear();
      return true;
    case CRecordReader::Input::Failed:
      TellOnce("cannot read on in " + m_pFile->Path() + ": " + std::generic_category().message(iError));
      return false;
    case CRecordReader::Input::None:
    case CRecordReader::Input::Ended:
      break;
  }
  return LeaveWhenOver();
}

// At the end of the file: whether the log has gone on elsewhere.
bool CLogTail::LeaveWhenOver() {
  struct stat info {};
  const bool bThere = ::stat(m_strLog.c_str(), &info) == 0;
  if ((bThere ? m_pFile->IsAt(info) : errno == ENOENT) || !IsQuiet(*m_pFile)) {
    return false;
  }
  const Successor successor = FindSuccessor(m_strLog, *m_pFile);
  if (!successor.strError.empty()) {
    TellWaitsFor(successor.strError);
    return false;
  }
  struct stat next {};
  // A log that is still empty gives nobody away who may go on writing here.
  if (!successor.pFile || ::fstat(successor.pFile->Descriptor(), &next) != 0 || next.st_size == 0) {
    return false;
  }
  m_reader.End();
  m_bLeaving = true;
  return true;
}

void CLogTail::GoToSuccessor() {
  const Successor successor = FindSuccessor(m_strLog, *m_pFile);
  if (!successor.strError.empty()) {
    TellWaitsFor(successor.strError);
  }
  TakeSuccessor(successor);
}

void CLogTail::TakeSuccessor(const Successor& successor) {
  if (!successor.pFile) {
    return;
  }
  for (const std::string& strPath : successor.vecUnreadable) {
    m_fnTell("warning: " + strPath + " is compressed and is not read: what it holds is not sent");
  }
  Open(successor.pFile, 0, {});
}

void CLogTail::AfterTruncation() {
  FollowPosition position;
  position.u64Offset = m_u64Line;
  position.strHead = m_pFile->Head();
  position.strBefore = m_strBefore;
  const std::string strWhat = m_pFile->Path() + " was truncated behind " + Byte(m_u64Line) + ": ";
  if (auto pCopy = FindCopy(m_strLog, position)) {
    m_fnTell(strWhat + "goes on in its copy " + pCopy->Path());
    Open(std::move(pCopy), m_u64Line, m_strBefore);
    return;
  }
  std::string strError;
  auto pAgain = CLogFile::Open(m_strLog, strError);
  m_fnTell("warning: " + strWhat + "starts at its beginning, and what may have stood behind is not sent");
  if (pAgain) {
    Open(std::move(pAgain), 0, {});
  } else {
    m_pFile = nullptr;
  }
}

// The error says that a file cannot be read.
void CLogTail::TellWaitsFor(const std::string& strError) {
  TellOnce(strError + "; it is waited for");
}

void CLogTail::TellOnce(const std::string& strText) {
  if (m_strTold != strText) {
    m_strTold = strText;
    m_fnTell(strText);
  }
}
