#include "tools/qmcache/sqlite_statement.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>

namespace {

constexpr int kPrimaryCode = 0xff;  // extended result codes carry the primary one there

}  // namespace

void FinalizeStatement::operator()(sqlite3_stmt* pStmt) const {
  sqlite3_finalize(pStmt);
}

int Primary(int iResult) {
  return iResult & kPrimaryCode;
}

bool IsPassing(int iResult) {
  constexpr std::array<int, 4> kPassing = {SQLITE_READONLY, SQLITE_CANTOPEN, SQLITE_BUSY, SQLITE_PROTOCOL};
  return std::find(kPassing.begin(), kPassing.end(), Primary(iResult)) != kPassing.end();
}

bool IsDamage(int iResult) {
  return Primary(iResult) == SQLITE_CORRUPT || Primary(iResult) == SQLITE_NOTADB;
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
