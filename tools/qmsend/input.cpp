#include "tools/qmsend/input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace {

std::string ErrorText(int iError) {
  return std::generic_category().message(iError);
}

}  // namespace

CInput::CInput(std::vector<std::string> vecFiles, RecordMode mode, size_t uMaxRecord, Complaint fnComplain)
    : m_vecFiles(std::move(vecFiles)), m_reader(mode, uMaxRecord), m_fnComplain(std::move(fnComplain)) {
  m_vecNames.reserve(m_vecFiles.size());
  for (const std::string& strFile : m_vecFiles) {
    m_vecNames.push_back(strFile == "-" ? "stdin" : strFile);
  }
}

CInput::~CInput() {
  CloseSource();
}

CRecordReader::Step CInput::Next(Record& record) {
  for (;;) {
    if (m_iDescriptor < 0) {
      if (m_uSource == m_vecFiles.size()) {
        return CRecordReader::Step::End;
      }
      if (!Open()) {
        ++m_uSource;
        continue;
      }
    }
    const CRecordReader::Step step = m_reader.Next(record);
    if (step != CRecordReader::Step::End) {
      return step;
    }
    CloseSource();
    ++m_uSource;
  }
}

void CInput::Read() {
  if (m_reader.ReadFrom(m_iDescriptor) == CRecordReader::Input::Failed) {
    Complain("cannot read on: " + ErrorText(errno));
  }
}

std::vector<std::string> CInput::Unread() const {
  std::vector<std::string> vecUnread;
  for (size_t i = m_uSource; i < m_vecFiles.size(); ++i) {
    const bool bBegun = i == m_uSource && m_iDescriptor >= 0 && m_reader.LastNumber() > 0;
    vecUnread.push_back(m_vecNames[i] + (bBegun ? ": stopped after record " + std::to_string(m_reader.LastNumber()) +
                                                      ", what follows was not sent"
                                                : ": not sent"));
  }
  return vecUnread;
}

bool CInput::Open() {
  const std::string& strFile = m_vecFiles[m_uSource];
  // Non-blocking: the opening of a named pipe must not wait for its writer while answers come.
  m_iDescriptor = strFile == "-" ? STDIN_FILENO : ::open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (m_iDescriptor < 0) {
    Complain("cannot open: " + ErrorText(errno));
    return false;
  }
  struct stat info {};
  m_bRegular = ::fstat(m_iDescriptor, &info) == 0 && S_ISREG(info.st_mode);
  m_reader.Restart();
  return true;
}

void CInput::CloseSource() {
  if (m_iDescriptor > STDIN_FILENO) {
    ::close(m_iDescriptor);
  }
  m_iDescriptor = -1;
}

void CInput::Complain(const std::string& strText) {
  m_bErrors = true;
  m_fnComplain(m_vecNames[m_uSource] + ": " + strText);
}

std::string FindUnreadableFile(const std::vector<std::string>& vecFiles) {
  for (const std::string& strFile : vecFiles) {
    struct stat info {};
    if (strFile == "-") {
      continue;
    }
    if (::stat(strFile.c_str(), &info) != 0 || ::access(strFile.c_str(), R_OK) != 0) {
      return "cannot read '" + strFile + "': " + ErrorText(errno);
    }
    if (S_ISDIR(info.st_mode)) {
      return "cannot read '" + strFile + "': " + ErrorText(EISDIR);
    }
  }
  return {};
}
