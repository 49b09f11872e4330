// Thin functions over SQLite. Integer results are 0 (SQLITE_OK) or an SQLite result code.
//
// What every connection is set to:
// - The file must be a regular file, and its last path component no symbolic link; created with mode 0600.
// - Nothing in a file's schema can act: untrusted schema, defensive mode, triggers and views off.
// - A busy time-out of many seconds: an operator's shell or another object on the file makes us wait, not fail.
// - Write-ahead log with PERSIST_WAL and no checkpoint at close; the call that brings the log to kCheckpointFrames
//   frames truncates it. synchronous is FULL or NORMAL as QmGetStorageSync says. docs/storage.md has the measurements.
// - A new file gets its table in a rollback-journal transaction with synchronous=EXTRA, and the change to the
//   write-ahead log is made the same way by the first later connection, so that no journal can come back after a power
//   cut and undo a file that already holds records.
#ifndef QMLOGCACHE_DB_SQLITE_WRAPPER_H_
#define QMLOGCACHE_DB_SQLITE_WRAPPER_H_

struct sqlite3;
struct sqlite3_stmt;

inline constexpr int kCheckpointFrames = 24;
inline constexpr int kBusyTimeoutMs = 30000;

// Opens an existing database file for reading and writing.
int sqlite3_opendb(const char* pszPath, sqlite3** ppDb);
// Creates the file (taking over an empty one, removing side files left by an earlier one) and opens it.
int sqlite3_createdb(const char* pszPath, sqlite3** ppDb);
int sqlite3_closedb(sqlite3* pDb);
// Runs every statement of the text in turn.
int sqlite3_exec_sql(const char* pszSql, sqlite3* pDb);
// The same with a row callback; a non-zero result of it stops the query and gives a non-zero result.
int sqlite3_exec_sql2(const char* pszSql, sqlite3* pDb, int (*pfnCallback)(void*, int, char**, char**), void* pArg);
int wrap_sqlite3_prepare(sqlite3* pDb, const char* pszSql, int nByte, sqlite3_stmt** ppStmt, const char** ppszTail);
int wrap_sqlite3_step(sqlite3_stmt* pStmt);
const char* wrap_sqlite3_column_text(sqlite3_stmt* pStmt, int iCol);
int wrap_sqlite3_finalize(sqlite3_stmt* pStmt);

// Removes the side files (-journal, -wal, -shm) of a database that is gone or about to go.
void RemoveSideFiles(const char* pszPath);
// Brings what stands in the write-ahead log into the database file, as far as the file lets it. A file without a log is
// not touched.
void CheckpointIntoFile(const char* pszPath);
// The same for an open database, without waiting for readers: what they hold back stays in the log.
void CheckpointOpenFile(sqlite3* pDb);
// Undoes a transaction whose rollback journal still stands beside the file. A file whose creation was cut short may be
// longer before, and is empty after.
void RollBackJournal(const char* pszPath);
// Whether every byte of the file and of its write-ahead log can be read.
bool IsReadable(const char* pszPath);
// Whether a regular file with contents stands there.
bool HasContents(const char* pszPath);
// Whether an empty file stands there, of zero bytes or of the one byte that SQLite takes for none: a creation, or
// something else, that was cut short.
bool IsCutShort(const char* pszPath);

#endif  // QMLOGCACHE_DB_SQLITE_WRAPPER_H_
