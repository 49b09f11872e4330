#include "tools/qmcache/cache_reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "db/wal_vfs.h"
#include "tools/qmcache/interruption.h"
#include "tools/qmcache/progress.h"
#include "tools/qmcache/read_only_vfs.h"
#include "tools/qmcache/sqlite_statement.h"
#include "tools/qmcache/sqlite_uri.h"

namespace {

constexpr int kBusyTimeoutMs = 10000;
constexpr int kLongestValue = 256 << 20;  // bytes of a row
constexpr off_t kEmptyFileSize = 1;       // SQLite takes a file of one byte for an empty one, too
constexpr int kStepsBetweenLooks = 10000;

constexpr useconds_t kPauseUs = 20000;

// Lets statements read the table and the schema, and ask what is asked here.
int Authorize(void* /*pArg*/, int iAction, const char* pszFirst, const char* pszSecond, const char* /*pszDatabase*/,
              const char* pszInner) {
  const auto fnIs = [](const char* pszText, const char* pszWanted) {
    return pszText != nullptr && std::strcmp(pszText, pszWanted) == 0;
  };
  if (pszInner != nullptr) {
    return SQLITE_DENY;  // a view or a trigger asks
  }
  switch (iAction) {
    case SQLITE_SELECT:
    case SQLITE_TRANSACTION:
      return SQLITE_OK;
    case SQLITE_READ:
      return fnIs(pszFirst, "logcache") || fnIs(pszFirst, "sqlite_master") || fnIs(pszFirst, "sqlite_schema")
                 ? SQLITE_OK
                 : SQLITE_DENY;
    case SQLITE_FUNCTION:
      return fnIs(pszSecond, "max") || fnIs(pszSecond, "min") ? SQLITE_OK : SQLITE_DENY;
    case SQLITE_PRAGMA:
      return fnIs(pszFirst, "integrity_check") ? SQLITE_OK : SQLITE_DENY;
    default:
      return SQLITE_DENY;
  }
}

int StopWhenInterrupted(void* /*pArg*/) {
  return SignalThatCame() != 0 ? 1 : 0;
}

std::string ErrnoText() {
  return std::strerror(errno);
}

// Size of a file beside the database; -1 when there is none. False when it is no regular file.
bool SideFile(const std::string& strPath, off_t& iSize) {
  struct stat info {};
  iSize = -1;
  if (lstat(strPath.c_str(), &info) != 0) {
    return true;
  }
  iSize = info.st_size;
  return S_ISREG(info.st_mode);
}

}  // namespace

CCacheReader::CCacheReader(std::string strFile) : m_strFile(std::move(strFile)) {}

CCacheReader::~CCacheReader() {
  Close();
}

void CCacheReader::Close() {
  sqlite3_close(m_pDb);
  m_pDb = nullptr;
}

FileState CCacheReader::Fail(int iResult, const char* pszWhat) {
  EndIfInterrupted();
  m_iResult = iResult;
  m_strReason = fmt::format("{}: {}", pszWhat, sqlite3_errstr(iResult));
  if (m_pDb != nullptr && Primary(sqlite3_errcode(m_pDb)) == Primary(iResult)) {
    m_strReason = fmt::format("{}: {}", pszWhat, sqlite3_errmsg(m_pDb));
  }
  return IsDamage(iResult) ? FileState::Damaged : FileState::Unreadable;
}

FileState CCacheReader::Open() {
  // What stands in the way of a moment's reader (a log being made, a recovery) passes; what does not is copied.
  FileState state = FileState::Unreadable;
  bool bAgain = true;
  for (int iTry = 0; iTry < kTries && bAgain; ++iTry) {
    if (iTry > 0) {
      usleep(kPauseUs);
    }
    EndIfInterrupted();
    Close();
    state = OpenOnce(bAgain);
    if (state == FileState::Unreadable && Primary(m_iResult) == SQLITE_PROTOCOL) {
      break;  // SQLite itself has tried for ten seconds: the log and its index do not fit each other
    }
  }
  if (state == FileState::Unreadable && bAgain) {
    Close();
    const int iResult = OpenConnection(Way::Copied);
    int iSchema = SQLITE_OK;
    state = iResult == SQLITE_OK ? ReadSchema(iSchema) : FileState::Unreadable;
  }
  return state;
}

// bAgain: it may be otherwise in a moment.
FileState CCacheReader::OpenOnce(bool& bAgain) {
  bAgain = false;
  Way way = Way::Shared;
  FileState state = ChooseWay(way, m_bUsesLog);
  if (state != FileState::Sound) {
    return state;
  }
  int iResult = OpenConnection(way);
  if (iResult == SQLITE_OK) {
    state = ReadSchema(iResult);
    if (state == FileState::Sound && HasBeenWrittenTo()) {
      bAgain = true;
      return FileState::Unreadable;
    }
  } else {
    state = m_strReason.empty() ? Fail(iResult, "cannot be opened") : FileState::Unreadable;
  }
  bAgain = way != Way::Copied && IsPassing(iResult);
  // A file that was exchanged while it was looked at is damaged to one glance and not to the next.
  bAgain = bAgain || (state == FileState::Damaged && HasBeenWrittenTo());
  return state;
}

FileState CCacheReader::ChooseWay(Way& way, bool& bUsesLog) {
  m_strReason.clear();
  m_iResult = SQLITE_OK;
  constexpr std::string_view kMagic("SQLite format 3\0", 16);
  constexpr size_t kReadVersion = 19;  // of the header: 2 for a write-ahead log
  std::array<char, 100> acHeader{};
  if (lstat(m_strFile.c_str(), &m_look) != 0) {
    m_strReason = "cannot be read: " + ErrnoText();
    return FileState::Unreadable;
  }
  if (!S_ISREG(m_look.st_mode)) {
    m_strReason = "is no regular file";
    return FileState::Unreadable;
  }
  if (m_look.st_size <= kEmptyFileSize) {
    m_strReason = "is empty: its creation was cut short";
    return FileState::Empty;
  }
  // Closed before SQLite has a lock on the file, which closing would drop.
  const int iFile = OpenRegularFile(m_strFile);
  const ssize_t iRead = iFile < 0 ? -1 : pread(iFile, acHeader.data(), acHeader.size(), 0);
  const int iError = errno;
  if (iFile >= 0) {
    close(iFile);
  }
  if (iRead < 0) {
    m_strReason = fmt::format("cannot be read: {}", std::strerror(iError));
    return FileState::Unreadable;
  }
  if (!std::string_view(acHeader.data(), acHeader.size()).starts_with(kMagic)) {
    m_strReason = "is no database: its header is damaged";
    return FileState::Damaged;
  }
  off_t iLog = 0;
  off_t iIndex = 0;
  off_t iJournal = 0;
  if (!SideFile(m_strFile + "-wal", iLog) || !SideFile(m_strFile + "-shm", iIndex) ||
      !SideFile(m_strFile + "-journal", iJournal)) {
    m_strReason = "has something beside it that is no regular file";
    return FileState::Unreadable;
  }
  bUsesLog = acHeader[kReadVersion] == 2;
  way = Way::Shared;
  if (bUsesLog && (iLog < 0 || iIndex < 0)) {
    way = iLog > 0 ? Way::Copied : Way::AsItStands;
  }
  return FileState::Sound;
}

int CCacheReader::OpenConnection(Way way) {
  m_way = way;
  std::string strUri;
  const char* pszVfs = ReadOnlyVfsName();
  int iFlags = SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_PRIVATECACHE;
  if (way == Way::Copied) {
    if (m_pCopy == nullptr) {
      m_pCopy = std::make_unique<CPrivateCopy>();
    }
    if (!m_pCopy->TakeWhole(m_strFile, m_strReason)) {
      return SQLITE_CANTOPEN;
    }
    strUri = UriOf(m_pCopy->Path(), "");
    pszVfs = WalVfsName();
    iFlags |= SQLITE_OPEN_READWRITE;
  } else {
    strUri = UriOf(m_strFile, way == Way::Shared ? "?readonly_shm=1" : "?immutable=1");
    iFlags |= SQLITE_OPEN_READONLY;
  }
  if (pszVfs == nullptr) {
    return SQLITE_NOMEM;  // it would be SQLite's own, which does what these are to prevent
  }
  const int iResult = sqlite3_open_v2(strUri.c_str(), &m_pDb, iFlags, pszVfs);
  if (iResult == SQLITE_OK) {
    Restrict();
  }
  return iResult;
}

void CCacheReader::Restrict() {
  sqlite3_extended_result_codes(m_pDb, 1);
  sqlite3_busy_timeout(m_pDb, kBusyTimeoutMs);
  sqlite3_limit(m_pDb, SQLITE_LIMIT_LENGTH, kLongestValue);
  sqlite3_db_config(m_pDb, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(m_pDb, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(m_pDb, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(m_pDb, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_db_config(m_pDb, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
  sqlite3_db_config(m_pDb, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  static_cast<void>(
      sqlite3_exec(m_pDb, "PRAGMA temp_store=MEMORY; PRAGMA cell_size_check=1;", nullptr, nullptr, nullptr));
  if (m_way == Way::Copied) {
    // Undoes what a journal says. Where the journal names a further file this fails, and then that much is done.
    static_cast<void>(sqlite3_exec(m_pDb, "PRAGMA schema_version", nullptr, nullptr, nullptr));
  }
  sqlite3_set_authorizer(m_pDb, Authorize, nullptr);
  sqlite3_progress_handler(m_pDb, kStepsBetweenLooks, StopWhenInterrupted, nullptr);
}

int CCacheReader::Prepare(const char* pszSql, sqlite3_stmt** ppStmt) {
  return sqlite3_prepare_v2(m_pDb, pszSql, -1, ppStmt, nullptr);
}

bool CCacheReader::HasBeenWrittenTo() const {
  if (m_way != Way::AsItStands) {
    return false;
  }
  off_t iLog = 0;
  struct stat now {};
  return lstat(m_strFile.c_str(), &now) != 0 || !SideFile(m_strFile + "-wal", iLog) || iLog > 0 ||
         now.st_ino != m_look.st_ino || now.st_size != m_look.st_size || now.st_mtim.tv_sec != m_look.st_mtim.tv_sec ||
         now.st_mtim.tv_nsec != m_look.st_mtim.tv_nsec;
}

FileState CCacheReader::Reopen() {
  Close();
  usleep(kPauseUs);
  return Open();
}
