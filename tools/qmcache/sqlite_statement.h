// Statements on a cache file that is read, and what their results mean there.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_SQLITE_STATEMENT_H_
#define QMLOGCACHE_TOOLS_QMCACHE_SQLITE_STATEMENT_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct sqlite3_stmt;

struct FinalizeStatement {
  void operator()(sqlite3_stmt* pStmt) const;
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// The primary code of an extended one.
int Primary(int iResult);
// What a writer that opens, checkpoints or repairs the file at this moment looks like to a reader that may change
// nothing.
bool IsPassing(int iResult);
// SQLite's word that the file is damaged.
bool IsDamage(int iResult);

// A column of the current row; nothing when it is of another type.
std::optional<int64_t> Integer(sqlite3_stmt* pStmt, int iColumn);
std::optional<std::string> Text(sqlite3_stmt* pStmt, int iColumn);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_SQLITE_STATEMENT_H_
