// What the destination rejected for good, from the error channel's files.
#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "tools/qmcache/exit_codes.h"
#include "tools/qmcache/interruption.h"
#include "tools/qmcache/output.h"
#include "tools/qmcache/private_copy.h"
#include "tools/qmcache/progress.h"
#include "tools/qmcache/record_json.h"
#include "tools/qmcache/rejected_line.h"
#include "tools/qmcache/scan.h"
#include "tools/qmcache/verbs.h"

namespace {

constexpr std::string_view kChannel = "qmlogcacheerror";
constexpr std::string_view kExtension = ".log";
constexpr size_t kReadSize = 262144;
constexpr size_t kLongestLine = size_t{1} << 30;

struct LogFile {
  std::string strPath;
  int iDescriptor = -1;
  uint64_t u64Size = 0;
};

struct DirectoryClose {
  void operator()(DIR* pDirectory) const { closedir(pDirectory); }
};

// The age of a rotated file: 0 for the one being written, N for qmlogcacheerror.N.log. False for other names.
bool AgeOf(std::string_view svName, uint32_t& uAge) {
  if (!svName.starts_with(kChannel) || !svName.ends_with(kExtension) ||
      svName.size() < kChannel.size() + kExtension.size()) {
    return false;
  }
  svName.remove_prefix(kChannel.size());
  svName.remove_suffix(kExtension.size());
  uAge = 0;
  if (svName.empty()) {
    return true;
  }
  const auto result = std::from_chars(svName.data() + 1, svName.data() + svName.size(), uAge);
  return svName.front() == '.' && result.ec == std::errc() && result.ptr == svName.data() + svName.size();
}

std::string_view NameOf(std::string_view svPath) {
  return svPath.substr(svPath.rfind('/') + 1);  // all of it without a slash
}

std::vector<std::string> FindLogFiles(const std::string& strDirectory) {
  const std::unique_ptr<DIR, DirectoryClose> pDirectory(opendir(strDirectory.c_str()));
  if (pDirectory == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot read the log directory " + strDirectory);
  }
  std::vector<std::pair<uint32_t, std::string>> vecFound;
  while (const dirent* pEntry = readdir(pDirectory.get())) {
    uint32_t uAge = 0;
    if (AgeOf(pEntry->d_name, uAge)) {
      vecFound.emplace_back(uAge, strDirectory + "/" + pEntry->d_name);
    }
  }
  std::sort(vecFound.begin(), vecFound.end());
  std::vector<std::string> vecFiles;
  vecFiles.reserve(vecFound.size());
  for (auto& [uAge, strFile] : vecFound) {
    vecFiles.push_back(std::move(strFile));
  }
  return vecFiles;
}

class CRejected {
 public:
  explicit CRejected(const Options& options) : m_options(options) {}
  ~CRejected() { CloseAll(); }
  CRejected(const CRejected&) = delete;
  CRejected& operator=(const CRejected&) = delete;

  int Run() {
    OpenFiles();
    uint64_t u64Total = 0;
    for (const LogFile& file : m_vecFiles) {
      u64Total += file.u64Size;
    }
    CProgress progress(u64Total, !m_options.bQuiet && !m_output.IsTerminal());
    for (const LogFile& file : m_vecFiles) {
      progress.Begin(file.strPath, file.u64Size);
      ReadFile(file, progress);
    }
    m_output.Finish();
    return m_troubles.ExitCode(m_u64Count == 0 && !m_options.filter.IsEmpty());
  }

 private:
  // All are opened before one is read, the newest first: a rotation in between moves a file to a name that is opened
  // later. A rotation that began before the directory was listed can make a file's new name one that was not there, so
  // the directory is listed again until it names nothing else than what is open.
  void OpenFiles() {
    if (!m_options.vecLogFiles.empty()) {
      OpenAll(m_options.vecLogFiles);
      return;
    }
    constexpr int kTries = 10;
    for (int iTry = 0; iTry < kTries; ++iTry) {
      EndIfInterrupted();
      CloseAll();
      OpenAll(FindLogFiles(m_options.installation.strLogDirectory));
      if (m_troubles.bFailed || !HasBeenRotated()) {
        break;
      }
    }
    std::reverse(m_vecFiles.begin(), m_vecFiles.end());  // the oldest line first
  }

  void CloseAll() {
    for (const LogFile& file : m_vecFiles) {
      close(file.iDescriptor);
    }
    m_vecFiles.clear();
    m_setOpen.clear();
  }

  bool HasBeenRotated() const {
    const std::vector<std::string> vecNow = FindLogFiles(m_options.installation.strLogDirectory);
    return std::any_of(vecNow.begin(), vecNow.end(), [this](const std::string& strFile) {
      struct stat info {};
      return lstat(strFile.c_str(), &info) != 0 || m_setOpen.count({info.st_dev, info.st_ino}) == 0;
    });
  }

  void OpenAll(const std::vector<std::string>& vecFiles) {
    for (const std::string& strFile : vecFiles) {
      struct stat info {};
      const int iFile = OpenRegularFile(strFile);
      if (iFile < 0 && errno == ENOENT && m_options.vecLogFiles.empty()) {
        continue;  // rotated away since the directory was listed
      }
      if (iFile < 0 || fstat(iFile, &info) != 0) {
        m_troubles.bFailed = true;
        Complain(fmt::format("cannot read {}: {}", strFile, std::generic_category().message(errno)));
      } else if (!m_setOpen.emplace(info.st_dev, info.st_ino).second) {
        close(iFile);
      } else {
        m_vecFiles.push_back({strFile, iFile, static_cast<uint64_t>(info.st_size)});
      }
    }
  }

  void ReadFile(const LogFile& file, CProgress& progress) {
    std::string strBuffer;
    std::vector<char> vecBlock(kReadSize);
    uint64_t u64Line = 0;
    for (;;) {
      EndIfInterrupted();
      const ssize_t iRead = read(file.iDescriptor, vecBlock.data(), vecBlock.size());
      if (iRead < 0 && errno == EINTR) {
        continue;
      }
      if (iRead < 0) {
        m_troubles.bFailed = true;
        Complain(fmt::format("cannot read {}: {}", file.strPath, std::generic_category().message(errno)));
      }
      if (iRead <= 0) {
        break;
      }
      progress.Advance(static_cast<uint64_t>(iRead));
      const size_t uScanned = strBuffer.size();
      strBuffer.append(vecBlock.data(), static_cast<size_t>(iRead));
      TakeLines(file, strBuffer, uScanned, u64Line);
      if (strBuffer.size() > kLongestLine) {
        strBuffer.clear();  // what follows of the line is no record's beginning
        TellDamaged(file, u64Line + 1);
      }
    }
    if (!strBuffer.empty()) {
      TakeUnendedLine(file, strBuffer, ++u64Line);
    }
  }

  void TakeLines(const LogFile& file, std::string& strBuffer, size_t uScanned, uint64_t& u64Line) {
    size_t uBegin = 0;
    for (size_t uEnd = strBuffer.find('\n', uScanned); uEnd != std::string::npos; uEnd = strBuffer.find('\n', uBegin)) {
      TakeLine(file, std::string_view(strBuffer).substr(uBegin, uEnd - uBegin), ++u64Line);
      uBegin = uEnd + 1;
    }
    strBuffer.erase(0, uBegin);
  }

  // Nobody goes on with a line of a file that was rotated away, so there it was cut.
  void TakeUnendedLine(const LogFile& file, const std::string& strLine, uint64_t u64Line) {
    uint32_t uAge = 0;
    RejectedRecord rejected;
    const bool bWrittenTo = AgeOf(NameOf(file.strPath), uAge) && uAge == 0;
    if (bWrittenTo && ParseRejectedLine(strLine, rejected) != RejectedLine::Record) {
      Complain(fmt::format("{}:{}: the file ends without a newline, its last line is still being written or was cut",
                           file.strPath, u64Line));
    } else {
      TakeLine(file, strLine, u64Line);
    }
  }

  void TakeLine(const LogFile& file, std::string_view svLine, uint64_t u64Line) {
    RejectedRecord rejected;
    switch (ParseRejectedLine(svLine, rejected)) {
      case RejectedLine::Other:
        return;
      case RejectedLine::Damaged:
        TellDamaged(file, u64Line);
        return;
      case RejectedLine::Record:
        break;
    }
    const Filter& filter = m_options.filter;
    if (!filter.TakesSender(rejected.record.strGuid) || !filter.TakesPriority(rejected.record.iPriv) ||
        (filter.since && rejected.i64Second < *filter.since)) {
      return;
    }
    ++m_u64Count;
    m_json.Append(m_output.Buffer(), rejected.record, {{"result", rejected.strResult}, {"rejected", rejected.strTime}});
    m_output.Line("");
  }

  void TellDamaged(const LogFile& file, uint64_t u64Line) {
    m_troubles.bDamage = true;
    Complain(fmt::format("{}:{}: the line is cut or damaged, its record is lost", file.strPath, u64Line));
  }

  const Options& m_options;
  COutput m_output;
  CRecordJson m_json;
  Troubles m_troubles;
  std::vector<LogFile> m_vecFiles;
  std::set<std::pair<dev_t, ino_t>> m_setOpen;
  uint64_t m_u64Count = 0;
};

}  // namespace

int RunRejected(const Options& options) {
  return CRejected(options).Run();
}
