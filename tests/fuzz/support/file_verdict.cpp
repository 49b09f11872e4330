#include "tests/fuzz/support/file_verdict.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/own_base64.h"

namespace {

namespace fs = std::filesystem;

struct StatementFinalize {
  void operator()(sqlite3_stmt* pStatement) const { sqlite3_finalize(pStatement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalize>;

Statement Prepare(sqlite3* pDb, const char* pszSql) {
  sqlite3_stmt* pStatement = nullptr;
  return Statement(sqlite3_prepare_v2(pDb, pszSql, -1, &pStatement, nullptr) == SQLITE_OK ? pStatement : nullptr);
}

std::string Text(sqlite3_stmt* pStatement, int iColumn) {
  const auto* pText = reinterpret_cast<const char*>(sqlite3_column_text(pStatement, iColumn));
  return pText == nullptr ? "(null)" : pText;
}

void ReadRows(sqlite3* pDb, Verdict& verdict) {
  const Statement pStatement = Prepare(pDb, "select * from logcache limit 900");
  if (pStatement == nullptr) {
    return;
  }
  int iStep = 0;
  bool bKeys = true;
  while ((iStep = sqlite3_step(pStatement.get())) == SQLITE_ROW) {
    std::map<std::string, std::string> mapColumns;
    std::string strRow;
    for (int i = 0; i < sqlite3_column_count(pStatement.get()); ++i) {
      const std::string strName = sqlite3_column_name(pStatement.get(), i);
      mapColumns[strName] = Text(pStatement.get(), i);
      strRow += strName + "=" + mapColumns[strName] + ";";
    }
    const std::string& strKey = mapColumns["dataid"];
    bKeys = bKeys && !strKey.empty() && verdict.mapRows.emplace(strKey, strRow).second;
    std::string strData = mapColumns["data"];
    if (static_cast<int>(strtol(mapColumns["datatype"].c_str(), nullptr, 10)) == 1) {
      const std::optional<std::string> bytes = ReadBase64(strData);
      verdict.bDecodable = verdict.bDecodable && bytes.has_value();
      strData = bytes.value_or("").c_str();
    }
    verdict.mapData.emplace(strKey, strData);
  }
  verdict.bReadable = iStep == SQLITE_DONE && bKeys && verdict.mapRows.size() < 900;
}

}  // namespace

Verdict Judge(const std::string& strFile, const std::string& strScratch) {
  Verdict verdict;
  const std::string strCopy = strScratch + "/copy.db";
  fs::remove(strCopy + "-shm");
  for (const char* pszSide : {"", "-wal", "-journal"}) {
    fs::remove(strCopy + pszSide);
    if (fs::exists(strFile + pszSide)) {
      fs::copy_file(strFile + pszSide, strCopy + pszSide);
    }
  }
  if (!fs::exists(strCopy)) {
    return verdict;
  }
  sqlite3* pDb = nullptr;
  if (sqlite3_open_v2(strCopy.c_str(), &pDb, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    if (const Statement pCheck = Prepare(pDb, "PRAGMA quick_check"); pCheck != nullptr) {
      verdict.bSound = sqlite3_step(pCheck.get()) == SQLITE_ROW && Text(pCheck.get(), 0) == "ok";
    }
    if (const Statement pSchema = Prepare(pDb,
                                          "select type, sql, (select count(*) from sqlite_schema) from "
                                          "sqlite_schema where name = 'logcache' and sql not like '%replace%'");
        pSchema != nullptr && sqlite3_step(pSchema.get()) == SQLITE_ROW && Text(pSchema.get(), 0) == "table") {
      ReadRows(pDb, verdict);
      const std::string strSql = Text(pSchema.get(), 1);
      verdict.bOwnTable = verdict.bReadable && Text(pSchema.get(), 2) == "1" &&
                          strSql ==
                              "CREATE TABLE [logcache] ([dataid] INTEGER NOT NULL PRIMARY KEY, [priv] INTEGER NOT "
                              "NULL, [msgtype] INTEGER NOT NULL, [product] VARCHAR(128) NOT NULL, [combo] VARCHAR(128) "
                              "NOT NULL, [datatype] INTEGER NOT NULL, [data] longtext NOT NULL, [reserved1] INTEGER "
                              "NULL, [reserved2] VARCHAR(256) NULL)";
    }
  }
  sqlite3_close(pDb);
  return verdict;
}

void CheckKept(const Verdict& before, const Verdict& now, const std::set<std::string>& setMayGo) {
  FUZZ_CHECK(now.bSound && now.bReadable);
  for (const auto& [strKey, strRow] : before.mapRows) {
    const auto it = now.mapRows.find(strKey);
    const bool bKept = it != now.mapRows.end() && it->second == strRow;
    if (!bKept && !setMayGo.contains(strKey)) {
      fprintf(stderr, "row before: %s\nrow now: %s\n", strRow.c_str(),
              it == now.mapRows.end() ? "(none)" : it->second.c_str());
    }
    FUZZ_CHECK(bKept || setMayGo.contains(strKey));
  }
}

// The oldest row, and the next one when the first attempt failed, since each attempt makes room of its own. Only where
// the data id is the rowid can be told which rows those are.
std::set<std::string> CoveredRows(const Verdict& verdict) {
  std::vector<std::string> vecKeys;
  for (const auto& [strKey, strRow] : verdict.mapRows) {
    vecKeys.push_back(strKey);
  }
  std::sort(vecKeys.begin(), vecKeys.end(), [](const std::string& strLeft, const std::string& strRight) {
    return strtoll(strLeft.c_str(), nullptr, 10) < strtoll(strRight.c_str(), nullptr, 10);
  });
  if (verdict.bOwnTable) {
    vecKeys.resize(std::min<size_t>(vecKeys.size(), 2));
  }
  return {vecKeys.begin(), vecKeys.end()};
}
