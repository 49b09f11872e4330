// What a reader that is open reads: the table's definition, rows page by page, and SQLite's own check.
#include <fmt/format.h>
#include <sqlite3.h>

#include <limits>
#include <optional>

#include "tools/qmcache/cache_reader.h"
#include "tools/qmcache/interruption.h"
#include "tools/qmcache/sqlite_statement.h"

namespace {

constexpr size_t kPageRows = 1000;
constexpr size_t kPageBytes = size_t{8} << 20;
constexpr size_t kKeysAPage = 20000;
constexpr size_t kMostProblems = 100;

constexpr char kAllColumns[] =
    "SELECT rowid, dataid, priv, msgtype, product, combo, datatype, data FROM main.logcache WHERE rowid >= ?1 "
    "ORDER BY rowid LIMIT ?2";
constexpr char kKeyAndPriority[] =
    "SELECT rowid, dataid, priv FROM main.logcache WHERE rowid >= ?1 ORDER BY rowid LIMIT ?2";

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

}  // namespace

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
