#include "bench/storage/bare_sqlite.h"

#include <sqlite3.h>

#include <stdexcept>

#include "bench/storage/sample_records.h"
#include "db/sqlite_wrapper.h"
#include "db/wal_vfs.h"

namespace {

constexpr char kCreateTable[] =
    "CREATE TABLE logcache (dataid INTEGER NOT NULL PRIMARY KEY, priv INTEGER NOT NULL, msgtype INTEGER NOT NULL, "
    "product VARCHAR(128) NOT NULL, combo VARCHAR(128) NOT NULL, datatype INTEGER NOT NULL, data longtext NOT NULL, "
    "reserved1 INTEGER NULL, reserved2 VARCHAR(256) NULL);";

constexpr char kInsert[] = "insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values ";

int TruncateLongLog(void* /*pArg*/, sqlite3* pDb, const char* pszDatabase, int iFrames) {
  if (iFrames >= kCheckpointFrames) {
    static_cast<void>(sqlite3_wal_checkpoint_v2(pDb, pszDatabase, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr));
  }
  return SQLITE_OK;
}

// Closes on every way out; throws for whatever fails before.
class CConnection {
 public:
  CConnection(const std::string& strPath, BareSync sync, bool bCreate = false) {
    try {
      if (sync == BareSync::Default) {
        Check(sqlite3_open(strPath.c_str(), &m_pDb), "open");
      } else {
        const int iFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (bCreate ? SQLITE_OPEN_CREATE : 0);
        Check(sqlite3_open_v2(strPath.c_str(), &m_pDb, iFlags, WalVfsName()), "open");
        sqlite3_busy_timeout(m_pDb, kBusyTimeoutMs);
        int iPersist = 1;
        Check(sqlite3_file_control(m_pDb, nullptr, SQLITE_FCNTL_PERSIST_WAL, &iPersist), "PERSIST_WAL");
        Check(sqlite3_db_config(m_pDb, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr), "NO_CKPT_ON_CLOSE");
        sqlite3_wal_hook(m_pDb, TruncateLongLog, nullptr);
        Execute(sync == BareSync::Full ? "PRAGMA synchronous=FULL;" : "PRAGMA synchronous=NORMAL;");
      }
    } catch (...) {
      sqlite3_close(m_pDb);
      throw;
    }
  }
  ~CConnection() { sqlite3_close(m_pDb); }
  CConnection(const CConnection&) = delete;
  CConnection& operator=(const CConnection&) = delete;

  void Execute(const char* pszSql) const { Check(sqlite3_exec(m_pDb, pszSql, nullptr, nullptr, nullptr), "execute"); }
  sqlite3* Handle() const { return m_pDb; }
  static void Check(int iRet, const char* pszWhat) {
    if (iRet != SQLITE_OK) {
      throw std::runtime_error(std::string("SQLite ") + pszWhat + ": " + sqlite3_errstr(iRet));
    }
  }

 private:
  sqlite3* m_pDb = nullptr;
};

void AppendQuoted(std::string& strSql, const std::string& strText) {
  strSql += '\'';
  size_t uFrom = 0;
  for (size_t uAt = strText.find('\''); uAt != std::string::npos; uAt = strText.find('\'', uFrom)) {
    strSql.append(strText, uFrom, uAt + 1 - uFrom).append("'");
    uFrom = uAt + 1;
  }
  strSql.append(strText, uFrom).append("'");
}

void AppendRow(std::string& strSql, const BareRow& row) {
  strSql.append("(").append(std::to_string(row.u64DataId)).append(", ").append(std::to_string(row.iPriv));
  strSql.append(", ").append(std::to_string(row.iMsgType)).append(", ");
  AppendQuoted(strSql, row.strProduct);
  strSql += ", ";
  AppendQuoted(strSql, row.strCombo);
  strSql.append(", ").append(std::to_string(row.iDataType)).append(", ");
  AppendQuoted(strSql, row.strData);
  strSql += ')';
}

std::string TextOf(sqlite3_stmt* pStmt, int iColumn) {
  const auto* pText = sqlite3_column_text(pStmt, iColumn);
  return {reinterpret_cast<const char*>(pText), static_cast<size_t>(sqlite3_column_bytes(pStmt, iColumn))};
}

}  // namespace

CBareFile::CBareFile(std::string strPath, BareSync sync) : m_strPath(std::move(strPath)), m_sync(sync) {
  constexpr bool kCreate = true;
  const CConnection connection(m_strPath, m_sync, kCreate);
  if (m_sync != BareSync::Default) {
    connection.Execute("PRAGMA journal_mode=WAL;");
  }
  connection.Execute(kCreateTable);
}

CBareFile CBareFile::Existing(std::string strPath, BareSync sync) {
  CBareFile file;
  file.m_strPath = std::move(strPath);
  file.m_sync = sync;
  return file;
}

void CBareFile::Execute(const std::string& strSql) const {
  CConnection(m_strPath, m_sync).Execute(strSql.c_str());
}

void CBareFile::Insert(const BareRow& row) const {
  Insert(&row, 1);
}

void CBareFile::Insert(const BareRow* pRows, size_t uCount) const {
  std::string strSql = kInsert;
  for (size_t i = 0; i < uCount; ++i) {
    if (i != 0) {
      strSql += ", ";
    }
    AppendRow(strSql, pRows[i]);
  }
  strSql += ';';
  Execute(strSql);
}

void CBareFile::Delete(uint64_t u64DataId) const {
  Execute("delete from logcache where dataid = " + std::to_string(u64DataId) + ";");
}

void CBareFile::Vacuum() const {
  const CConnection connection(m_strPath, m_sync);
  connection.Execute("VACUUM");
  if (m_sync != BareSync::Default) {
    CConnection::Check(
        sqlite3_wal_checkpoint_v2(connection.Handle(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr),
        "checkpoint");
  }
}

std::vector<BareRow> CBareFile::Select() const {
  const CConnection connection(m_strPath, m_sync);
  sqlite3_stmt* pStmt = nullptr;
  CConnection::Check(sqlite3_prepare_v2(connection.Handle(),
                                        "select dataid, priv, msgtype, product, combo, datatype, data from logcache",
                                        -1, &pStmt, nullptr),
                     "prepare");
  std::vector<BareRow> vecRows;
  int iRet = SQLITE_OK;
  while ((iRet = sqlite3_step(pStmt)) == SQLITE_ROW) {
    enum Column { kDataId, kPriv, kMsgType, kProduct, kCombo, kDataType, kData };
    vecRows.push_back({static_cast<uint64_t>(sqlite3_column_int64(pStmt, kDataId)), sqlite3_column_int(pStmt, kPriv),
                       sqlite3_column_int(pStmt, kMsgType), sqlite3_column_int(pStmt, kDataType),
                       TextOf(pStmt, kProduct), TextOf(pStmt, kCombo), TextOf(pStmt, kData)});
  }
  sqlite3_finalize(pStmt);
  CConnection::Check(iRet == SQLITE_DONE ? SQLITE_OK : iRet, "select");
  return vecRows;
}

std::vector<BareRow> SampleRows(size_t uFirst, size_t uCount) {
  std::vector<BareRow> vecRows;
  vecRows.reserve(uCount);
  for (size_t i = 0; i < uCount; ++i) {
    vecRows.push_back(
        {SampleDataId(uFirst + i), kSamplePriv, kSampleMsgType, 0, {}, {}, SampleText(uFirst + i).c_str()});
  }
  return vecRows;
}
