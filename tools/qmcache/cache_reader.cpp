#include "tools/qmcache/cache_reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include "db/wal_vfs.h"
#include "tools/qmcache/interruption.h"
#include "tools/qmcache/progress.h"
#include "tools/qmcache/read_only_vfs.h"
#include "tools/qmcache/sqlite_uri.h"

namespace {

constexpr int kBusyTimeoutMs = 10000;
constexpr int kPrimaryCode = 0xff;  // extended result codes carry the primary one there
constexpr size_t kPageRows = 1000;
constexpr size_t kPageBytes = size_t{8} << 20;
constexpr size_t kKeysAPage = 20000;
constexpr int kLongestValue = 256 << 20;  // bytes of a row
constexpr off_t kEmptyFileSize = 1;       // SQLite takes a file of one byte for an empty one, too
constexpr int kStepsBetweenLooks = 10000;
constexpr size_t kMostProblems = 100;

constexpr char kAllColumns[] =
    "SELECT rowid, dataid, priv, msgtype, product, combo, datatype, data FROM main.logcache WHERE rowid >= ?1 "
    "ORDER BY rowid LIMIT ?2";
constexpr char kKeyAndPriority[] =
    "SELECT rowid, dataid, priv FROM main.logcache WHERE rowid >= ?1 ORDER BY rowid LIMIT ?2";

constexpr int kTries = 20;
constexpr useconds_t kPauseUs = 20000;

int Primary(int iResult) {
  return iResult & kPrimaryCode;
}

// What a writer that opens, checkpoints or repairs the file at this moment looks like to a reader that may change
// nothing.
bool IsPassing(int iResult) {
  constexpr std::array<int, 4> kPassing = {SQLITE_READONLY, SQLITE_CANTOPEN, SQLITE_BUSY, SQLITE_PROTOCOL};
  return std::find(kPassing.begin(), kPassing.end(), Primary(iResult)) != kPassing.end();
}

bool IsDamage(int iResult) {
  return Primary(iResult) == SQLITE_CORRUPT || Primary(iResult) == SQLITE_NOTADB;
}

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

std::optional<int64_t> Integer(sqlite3_stmt* pStmt, int iColumn) {
  if (sqlite3_column_type(pStmt, iColumn) != SQLITE_INTEGER) {
    return std::nullopt;
  }
  return sqlite3_column_int64(pStmt, iColumn);
}

std::optional<std::string> Text(sqlite3_stmt* pStmt, int iColumn) {
  if (sqlite3_column_type(pStmt, iColumn) != SQLITE_TEXT) {
    return std::nullopt;
  }
  const auto* pText = reinterpret_cast<const char*>(sqlite3_column_text(pStmt, iColumn));
  if (pText == nullptr) {
    return std::nullopt;
  }
  return std::string(pText, static_cast<size_t>(sqlite3_column_bytes(pStmt, iColumn)));
}

StoredRow RowOf(sqlite3_stmt* pStmt, bool bAll) {
  StoredRow row;
  int iColumn = 0;
  row.i64RowId = sqlite3_column_int64(pStmt, iColumn++);
  row.dataId = Integer(pStmt, iColumn++);
  row.priv = Integer(pStmt, iColumn++);
  if (bAll) {
    row.msgType = Integer(pStmt, iColumn++);
    row.product = Text(pStmt, iColumn++);
    row.combo = Text(pStmt, iColumn++);
    row.dataType = Integer(pStmt, iColumn++);
    row.data = Text(pStmt, iColumn++);
  }
  return row;
}

struct Finalize {
  void operator()(sqlite3_stmt* pStmt) const { sqlite3_finalize(pStmt); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

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

FileState CCacheReader::ReadSchema(int& iResult) {
  sqlite3_stmt* pRaw = nullptr;
  iResult = Prepare("SELECT type, sql FROM main.sqlite_master WHERE name='logcache'", &pRaw);
  const Statement pStmt(pRaw);
  if (iResult == SQLITE_OK) {
    iResult = sqlite3_step(pRaw);
  }
  if (iResult == SQLITE_DONE) {
    m_strReason = "is no cache file: it has no table logcache";
    return FileState::Damaged;
  }
  if (iResult != SQLITE_ROW) {
    return Fail(iResult, "cannot be read");
  }
  const std::string strType = Text(pRaw, 0).value_or("");
  const std::string strSql = Text(pRaw, 1).value_or("");
  iResult = SQLITE_OK;
  if (strType != "table" || sqlite3_strnicmp(strSql.c_str(), "CREATE TABLE", 12) != 0) {
    m_strReason = "is no cache file: its logcache is no table";
    return FileState::Damaged;
  }
  sqlite3_stmt* pRows = nullptr;
  const int iRows = Prepare(kAllColumns, &pRows);
  const Statement pGuard(pRows);
  if (Primary(iRows) == SQLITE_ERROR || Primary(iRows) == SQLITE_AUTH) {
    m_strReason = fmt::format("is no cache file: {}", sqlite3_errmsg(m_pDb));
    return FileState::Damaged;
  }
  if (iRows != SQLITE_OK) {
    iResult = iRows;
    return Fail(iRows, "cannot be read");
  }
  return FileState::Sound;
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

void CCacheReader::Seek(int64_t i64RowId) {
  m_bEnded = false;
  m_bFromStart = i64RowId == std::numeric_limits<int64_t>::min();
  m_i64Last = m_bFromStart ? 0 : i64RowId - 1;
}

FileState CCacheReader::Next(Columns columns, std::vector<StoredRow>& vecRows,
                             std::vector<std::string>& vecUnreadable) {
  return NextRows(columns, columns == Columns::All ? kPageRows : kKeysAPage, vecRows, vecUnreadable);
}

FileState CCacheReader::NextRow(std::vector<StoredRow>& vecRows, std::vector<std::string>& vecUnreadable) {
  return NextRows(Columns::All, 1, vecRows, vecUnreadable);
}

FileState CCacheReader::NextRows(Columns columns, size_t uLimit, std::vector<StoredRow>& vecRows,
                                 std::vector<std::string>& vecUnreadable) {
  vecRows.clear();
  vecUnreadable.clear();
  if (m_bEnded) {
    return FileState::Sound;
  }
  const int64_t i64Last = m_i64Last;
  const bool bFromStart = m_bFromStart;
  for (int iTry = 0; iTry < kTries; ++iTry) {
    const FileState state = ReadPage(columns, uLimit, vecRows, vecUnreadable);
    if (!HasBeenWrittenTo() && (state != FileState::Unreadable || !IsPassing(m_iResult))) {
      return state;
    }
    vecRows.clear();
    vecUnreadable.clear();
    m_i64Last = i64Last;
    m_bFromStart = bFromStart;
    m_bEnded = false;
    if (const FileState opened = Reopen(); opened != FileState::Sound) {
      return opened;
    }
  }
  m_strReason = "is being written to without a pause; try again";
  return FileState::Unreadable;
}

FileState CCacheReader::ReadPage(Columns columns, size_t uLimit, std::vector<StoredRow>& vecRows,
                                 std::vector<std::string>& vecUnreadable) {
  EndIfInterrupted();
  const bool bAll = columns == Columns::All;
  if (!m_bFromStart && m_i64Last == std::numeric_limits<int64_t>::max()) {
    m_bEnded = true;
    return FileState::Sound;
  }
  const int64_t i64From = m_bFromStart ? std::numeric_limits<int64_t>::min() : m_i64Last + 1;
  sqlite3_stmt* pRaw = nullptr;
  int iResult = Prepare(bAll ? kAllColumns : kKeyAndPriority, &pRaw);
  Statement pStmt(pRaw);
  if (iResult != SQLITE_OK) {
    m_bEnded = true;
    return Fail(iResult, "cannot be read");
  }
  sqlite3_bind_int64(pRaw, 1, i64From);
  sqlite3_bind_int64(pRaw, 2, static_cast<int64_t>(uLimit));
  size_t uBytes = 0;
  int64_t i64Smallest = i64From;
  while (uBytes < kPageBytes && (iResult = sqlite3_step(pRaw)) == SQLITE_ROW) {
    StoredRow row = RowOf(pRaw, bAll);
    if (row.i64RowId < i64Smallest) {
      m_bEnded = true;
      m_strReason = "its rows are not in the order of their keys";
      return FileState::Damaged;
    }
    const bool bLast = row.i64RowId == std::numeric_limits<int64_t>::max();
    i64Smallest = bLast ? row.i64RowId : row.i64RowId + 1;
    uBytes += row.data ? row.data->size() : 0;
    vecRows.push_back(std::move(row));
  }
  pStmt.reset();  // the transaction is over
  if (!vecRows.empty()) {
    m_i64Last = vecRows.back().i64RowId;
    m_bFromStart = false;
  }
  if (iResult == SQLITE_ROW) {
    return FileState::Sound;
  }
  if (iResult == SQLITE_DONE) {
    m_bEnded = vecRows.size() < uLimit;
    return FileState::Sound;
  }
  return PassOver(vecUnreadable, iResult);
}

// The row behind the last one cannot be read. Where at least its key can, reading goes on behind it.
FileState CCacheReader::PassOver(std::vector<std::string>& vecUnreadable, int iResult) {
  const FileState state = Fail(iResult, "cannot be read on");
  const std::string strReason = m_strReason;
  if (state != FileState::Damaged && Primary(iResult) != SQLITE_TOOBIG) {
    m_bEnded = true;
    return state;
  }
  sqlite3_stmt* pRaw = nullptr;
  int iFound = Prepare("SELECT min(rowid) FROM main.logcache WHERE rowid >= ?1", &pRaw);
  const Statement pStmt(pRaw);
  if (iFound == SQLITE_OK) {
    sqlite3_bind_int64(pRaw, 1, m_bFromStart ? std::numeric_limits<int64_t>::min() : m_i64Last + 1);
    iFound = sqlite3_step(pRaw);
  }
  const std::optional<int64_t> next = iFound == SQLITE_ROW ? Integer(pRaw, 0) : std::nullopt;
  if (!next || (!m_bFromStart && *next <= m_i64Last)) {
    m_bEnded = true;
    m_strReason = strReason;
    return FileState::Damaged;
  }
  vecUnreadable.push_back(fmt::format("row {} {}", DataIdText(static_cast<uint64_t>(*next)), strReason));
  m_i64Last = *next;
  m_bFromStart = false;
  return FileState::Sound;
}

bool CCacheReader::FindLast(int64_t i64RowId, int64_t& i64Found) {
  for (int iTry = 0; iTry < kTries; ++iTry) {
    if (iTry > 0 && Reopen() != FileState::Sound) {
      return false;
    }
    sqlite3_stmt* pRaw = nullptr;
    int iResult = Prepare("SELECT max(rowid) FROM main.logcache WHERE rowid <= ?1", &pRaw);
    const Statement pStmt(pRaw);
    if (iResult == SQLITE_OK) {
      sqlite3_bind_int64(pRaw, 1, i64RowId);
      iResult = sqlite3_step(pRaw);
    }
    EndIfInterrupted();
    const std::optional<int64_t> found = iResult == SQLITE_ROW ? Integer(pRaw, 0) : std::nullopt;
    if (!HasBeenWrittenTo() && !IsPassing(iResult)) {
      i64Found = found.value_or(0);
      return found.has_value();
    }
  }
  return false;
}

FileState CCacheReader::Check(std::vector<std::string>& vecProblems) {
  FileState state = CheckOnce(vecProblems);
  for (int iTry = 1; iTry < kTries && (HasBeenWrittenTo() || (state == FileState::Unreadable && IsPassing(m_iResult)));
       ++iTry) {
    state = Reopen();
    state = state == FileState::Sound ? CheckOnce(vecProblems) : state;
  }
  return state;
}

FileState CCacheReader::CheckOnce(std::vector<std::string>& vecProblems) {
  vecProblems.clear();
  m_iResult = SQLITE_OK;
  if (!m_bUsesLog && m_way == Way::Shared) {
    // Whoever writes to such a file would have to wait for the whole check.
    Close();
    m_strReason.clear();
    if (OpenConnection(Way::Copied) != SQLITE_OK) {
      return FileState::Unreadable;
    }
  }
  sqlite3_stmt* pRaw = nullptr;
  int iResult = Prepare("PRAGMA main.integrity_check(100)", &pRaw);
  const Statement pStmt(pRaw);
  while (iResult == SQLITE_OK || iResult == SQLITE_ROW) {
    iResult = sqlite3_step(pRaw);
    if (iResult == SQLITE_ROW) {
      const std::string strProblem = Text(pRaw, 0).value_or("");
      if (strProblem != "ok" && vecProblems.size() < kMostProblems) {
        vecProblems.push_back(strProblem);
      }
    }
  }
  EndIfInterrupted();
  if (iResult != SQLITE_DONE) {
    vecProblems.emplace_back(sqlite3_errmsg(m_pDb));
    return Fail(iResult, "cannot be checked");
  }
  return vecProblems.empty() ? FileState::Sound : FileState::Damaged;
}
