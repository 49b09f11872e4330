// Cache files: SQLite databases with one table.
//
//   CREATE TABLE logcache (dataid INTEGER PRIMARY KEY, priv, msgtype, product, combo, datatype, data, reserved1,
//   reserved2)
//
// dataid is the rowid, so rowid order is the order of arrival. datatype tells how data is stored: 0 as text, 1 as
// base64 of the payload; it says nothing about the payload itself. The reserved columns are never written.
//
// Life of a file: made by the first operation that finds no file (or an empty one, a creation that was cut short);
// grown by inserts, shrunk by VACUUM; when damaged, compressed into NAME1.db.zip (gzip; the one before becomes
// NAME2.db.zip, unless a killed process left it of this very file) and removed together with its side files, so that the next operation makes a new one.
//
// CLogCacheDb has no state: every operation opens a connection of its own and closes it before it returns. What a
// connection is set to stands in sqlite_wrapper.h. No operation retries; fallbacks are the cache file's.
//
// Threads and locks: none here. The caller makes sure that one thread at a time works on a file.
// Errors: 0 or a code of platform/status_codes.h; failures are logged at level 3.
#ifndef QMLOGCACHE_DB_LOG_CACHE_DB_H_
#define QMLOGCACHE_DB_LOG_CACHE_DB_H_

#include <cstdint>
#include <list>

#include "platform/cpstring.h"

struct sqlite3;

// One row. strData is the payload itself: encoding is done at insert and undone at read.
struct _CacheDbData {
  unsigned long long u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  int iDataType = 0;
  CPString strProduct;
  CPString strCombo;
  CPString strData;
};

// How data is stored in a row.
enum CacheDataType : int { kDataPlain = 0, kDataBase64 = 1 };

// What a check of a file found.
enum class DbCheck {
  Sound,
  Damaged,  // SQLite itself says so: there is evidence in the file
  Unknown,  // the file could not be opened or read, for want of descriptors, memory, rights or a lock
};

class CLogCacheDb {
 public:
  // --- Connections and integrity: schema.cpp ---
  // An open connection, made together with its table when the file is new; null on any failure.
  sqlite3* GetDbFileHandle(const CPString& strFile);
  // The close result; -1 when there is no handle. Clears the handle.
  int CloseDbFileHandle(sqlite3** ppDb);
  // 0 when the file passes SQLite's quick check, else -1. A missing file is made, and is sound.
  int CheckDbFile(const CPString& strFile);
  // The same, telling damage from what merely could not be looked at.
  DbCheck ExamineDbFile(const CPString& strFile);

  // --- Rows: records.cpp ---
  // Inserts one row. iCover non-zero: the row with the smallest id is deleted first, and stays deleted even when the
  // insert fails. Text that SQL cannot carry (a zero byte) fails; the caller tries again with kDataBase64.
  [[nodiscard]] int AddDbData(const CPString& strFile, unsigned long long u64DataId, int iPriv, int iMsgType,
                              int iDataType, CPString strProduct, CPString strCombo, CPString strData, int iCover);
  // Inserts all rows in one statement, or none.
  [[nodiscard]] int AddDbData(const CPString& strFile, const std::list<_CacheDbData>& listData);
  // A missing row is no error.
  [[nodiscard]] int DeleteDbData(unsigned long long u64DataId, const CPString& strFile);
  // Appends at most dwCountLimit rows in data id order. Rows appended before a failure stay in the list.
  [[nodiscard]] int GetAllDbData(const CPString& strFile, uint32_t dwCountLimit, std::list<_CacheDbData>& listData);
  // Row callback of the read; pArg is the list. -1 stops the query.
  static int QueryCallback(void* pArg, int nColumn, char** ppValue, char** ppName);

  // --- Maintenance: maintenance.cpp ---
  // VACUUM. 0, SQLite's result, or -1 without a connection.
  int ReleaseDbFileSpace(const CPString& strFile);
  // Compresses the file into its newest backup and removes it, whether the compression succeeded or not: a damaged file
  // never stays in place.
  void BackupDbFile(const CPString& strDbFile);
  // 1 when at least one block was read and handed to zlib, else 0.
  int GenZipFile(const char* pszSrcFile, const char* pszZipFile);

 private:
  DbCheck ExamineOnce(const CPString& strFile);
};

#endif  // QMLOGCACHE_DB_LOG_CACHE_DB_H_
