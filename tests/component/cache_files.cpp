#include "cache_files.h"

#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace {

constexpr int kBusyMs = 60000;

struct DbClose {
  void operator()(sqlite3* pDb) const { sqlite3_close(pDb); }
};
using Db = std::unique_ptr<sqlite3, DbClose>;

struct StatementFinalize {
  void operator()(sqlite3_stmt* pStatement) const { sqlite3_finalize(pStatement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalize>;

[[noreturn]] void Throw(sqlite3* pDb, const std::string& strWhat) {
  throw std::runtime_error(strWhat + ": " + sqlite3_errmsg(pDb));
}

Db Open(const std::string& strFile, int iFlags) {
  sqlite3* pDb = nullptr;
  const int iRet = sqlite3_open_v2(strFile.c_str(), &pDb, iFlags, nullptr);
  Db db(pDb);
  if (iRet != SQLITE_OK) {
    Throw(pDb, strFile);
  }
  sqlite3_busy_timeout(pDb, kBusyMs);
  return db;
}

Statement Prepare(sqlite3* pDb, const char* pszSql) {
  sqlite3_stmt* pStatement = nullptr;
  if (sqlite3_prepare_v2(pDb, pszSql, -1, &pStatement, nullptr) != SQLITE_OK) {
    Throw(pDb, pszSql);
  }
  return Statement(pStatement);
}

void Execute(sqlite3* pDb, const char* pszSql) {
  if (sqlite3_exec(pDb, pszSql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    Throw(pDb, pszSql);
  }
}

std::string Text(sqlite3_stmt* pStatement, int iColumn) {
  const auto* pText = reinterpret_cast<const char*>(sqlite3_column_text(pStatement, iColumn));
  return pText == nullptr ? std::string()
                          : std::string(pText, static_cast<size_t>(sqlite3_column_bytes(pStatement, iColumn)));
}

void BindText(sqlite3_stmt* pStatement, int iColumn, const std::string& strText) {
  sqlite3_bind_text(pStatement, iColumn, strText.c_str(), static_cast<int>(strText.size()), SQLITE_TRANSIENT);
}

}  // namespace

std::vector<CacheRow> ReadCacheFile(const std::string& strFile) {
  if (!std::filesystem::exists(strFile)) {
    return {};
  }
  const Db db = Open(strFile, SQLITE_OPEN_READONLY);
  int iPersist = 1;
  sqlite3_file_control(db.get(), nullptr, SQLITE_FCNTL_PERSIST_WAL, &iPersist);
  sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  const Statement statement =
      Prepare(db.get(), "select dataid, priv, msgtype, product, combo, datatype, data from logcache order by dataid");
  std::vector<CacheRow> vecRows;
  int iRet = SQLITE_OK;
  while ((iRet = sqlite3_step(statement.get())) == SQLITE_ROW) {
    sqlite3_stmt* pRow = statement.get();
    vecRows.push_back({static_cast<uint64_t>(sqlite3_column_int64(pRow, 0)), sqlite3_column_int(pRow, 1),
                       sqlite3_column_int(pRow, 2), Text(pRow, 3), Text(pRow, 4), sqlite3_column_int(pRow, 5),
                       Text(pRow, 6)});
  }
  if (iRet != SQLITE_DONE) {
    Throw(db.get(), strFile);
  }
  return vecRows;
}

void WriteCacheFile(const std::string& strFile, const std::vector<CacheRow>& vecRows) {
  const std::string strNew = strFile + "-new";
  {
    const Db db = Open(strNew, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    Execute(db.get(),
            "CREATE TABLE logcache (dataid INTEGER NOT NULL PRIMARY KEY, priv INTEGER NOT NULL, msgtype INTEGER NOT "
            "NULL, product VARCHAR(128) NOT NULL, combo VARCHAR(128) NOT NULL, datatype INTEGER NOT NULL, data "
            "longtext NOT NULL, reserved1 INTEGER NULL, reserved2 VARCHAR(256) NULL); BEGIN");
    const Statement statement =
        Prepare(db.get(),
                "insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values "
                "(?, ?, ?, ?, ?, ?, ?)");
    for (const CacheRow& row : vecRows) {
      sqlite3_stmt* pRow = statement.get();
      sqlite3_bind_int64(pRow, 1, static_cast<sqlite3_int64>(row.u64DataId));
      sqlite3_bind_int(pRow, 2, row.iPriv);
      sqlite3_bind_int(pRow, 3, row.iMsgType);
      BindText(pRow, 4, row.strProduct);
      BindText(pRow, 5, row.strCombo);
      sqlite3_bind_int(pRow, 6, row.iDataType);
      BindText(pRow, 7, row.strData);
      if (sqlite3_step(pRow) != SQLITE_DONE) {
        Throw(db.get(), strNew);
      }
      sqlite3_reset(pRow);
    }
    Execute(db.get(), "COMMIT");
  }
  std::filesystem::rename(strNew, strFile);
}

std::vector<std::string> NamesIn(const std::string& strDirectory) {
  std::vector<std::string> vecNames;
  if (std::filesystem::exists(strDirectory)) {
    for (const auto& entry : std::filesystem::directory_iterator(strDirectory)) {
      vecNames.push_back(entry.path().filename().string());
    }
  }
  std::sort(vecNames.begin(), vecNames.end());
  return vecNames;
}

std::vector<std::string> DatabasesIn(const std::string& strDirectory) {
  std::vector<std::string> vecNames = NamesIn(strDirectory);
  std::erase_if(vecNames, [](const std::string& strName) { return !strName.ends_with(".db"); });
  return vecNames;
}

std::vector<std::string> OrphansIn(const std::string& strDirectory) {
  const std::vector<std::string> vecNames = NamesIn(strDirectory);
  std::vector<std::string> vecOrphans;
  for (const std::string_view svSuffix : {"-journal", "-wal", "-shm"}) {
    for (const std::string& strName : vecNames) {
      if (strName.ends_with(svSuffix) &&
          !std::binary_search(vecNames.begin(), vecNames.end(), strName.substr(0, strName.size() - svSuffix.size()))) {
        vecOrphans.push_back(strName);
      }
    }
  }
  return vecOrphans;
}
