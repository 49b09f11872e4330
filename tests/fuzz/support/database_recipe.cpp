#include "tests/fuzz/support/database_recipe.h"

#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "tests/fuzz/support/fuzz_check.h"

namespace {

constexpr char kOwnTable[] =
    "CREATE TABLE [logcache] ([dataid] INTEGER NOT NULL PRIMARY KEY, [priv] INTEGER NOT NULL, [msgtype] INTEGER NOT "
    "NULL, [product] VARCHAR(128) NOT NULL, [combo] VARCHAR(128) NOT NULL, [datatype] INTEGER NOT NULL, [data] "
    "longtext NOT NULL, [reserved1] INTEGER NULL, [reserved2] VARCHAR(256) NULL);";
constexpr char kLooseTable[] =
    "CREATE TABLE logcache (dataid INTEGER PRIMARY KEY, priv, msgtype, product, combo, datatype, data, reserved1, "
    "reserved2);";

// What is added to a table of our columns, or stands in its place.
constexpr const char* kExtras[] = {
    "",
    "CREATE TRIGGER t1 BEFORE INSERT ON logcache BEGIN DELETE FROM logcache; END;",
    "CREATE TRIGGER t2 AFTER DELETE ON logcache BEGIN DELETE FROM logcache; END;",
    "CREATE INDEX i1 ON logcache(hex(data));",
    "CREATE UNIQUE INDEX i2 ON logcache(product, combo, dataid);",
    "CREATE TABLE other (a, b); INSERT INTO other VALUES (1, 'x');",
    "ALTER TABLE logcache ADD COLUMN wide AS (hex(zeroblob(1000)));",
    "ALTER TABLE logcache ADD COLUMN odd AS (load_extension('x')) ;",
    "ALTER TABLE logcache RENAME COLUMN data TO payload;",
    "ALTER TABLE logcache DROP COLUMN reserved2;",
    "DROP TABLE logcache;",
    "DROP TABLE logcache; CREATE VIEW logcache AS WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c) SELECT "
    "x AS dataid, 'y' AS data FROM c;",
    "DROP TABLE logcache; CREATE TABLE logcache (dataid PRIMARY KEY, priv, msgtype, product, combo, datatype, data) "
    "WITHOUT ROWID; INSERT INTO logcache VALUES (7, 1, 1, 'p', 'c', 0, 'd');",
    "DROP TABLE logcache; CREATE VIRTUAL TABLE logcache USING fts5(dataid, priv, msgtype, product, combo, datatype, "
    "data);",
    "PRAGMA user_version = 7; PRAGMA application_id = 9;",
};

struct DbClose {
  void operator()(sqlite3* pDb) const { sqlite3_close_v2(pDb); }
};
struct StatementFinalize {
  void operator()(sqlite3_stmt* pStatement) const { sqlite3_finalize(pStatement); }
};

// A statement that the chosen schema does not take is passed over.
void Run(sqlite3* pDb, const char* pszSql) {
  static_cast<void>(sqlite3_exec(pDb, pszSql, nullptr, nullptr, nullptr));
}

void Bind(sqlite3_stmt* pStatement, int iColumn, FuzzedDataProvider& input) {
  constexpr size_t kLongest = 64;
  constexpr int kRepeat = 100;
  switch (input.ConsumeIntegralInRange(0, 6)) {
    case 0:
      sqlite3_bind_int64(pStatement, iColumn, input.ConsumeIntegral<int64_t>());
      break;
    case 1:
      sqlite3_bind_double(pStatement, iColumn, input.ConsumeFloatingPoint<double>());
      break;
    case 2: {
      const std::string strBlob = input.ConsumeRandomLengthString(kLongest);
      sqlite3_bind_blob(pStatement, iColumn, strBlob.data(), static_cast<int>(strBlob.size()), SQLITE_TRANSIENT);
      break;
    }
    case 3:
      sqlite3_bind_null(pStatement, iColumn);
      break;
    case 4: {
      std::string strLong;
      for (int i = 0; i < kRepeat; ++i) {
        strLong += "0123456789 abcdefghijklmnopqrstuvwxyz '\"<>";
      }
      sqlite3_bind_text(pStatement, iColumn, strLong.data(), static_cast<int>(strLong.size()), SQLITE_TRANSIENT);
      break;
    }
    default: {
      const std::string strText = input.ConsumeRandomLengthString(kLongest);
      sqlite3_bind_text(pStatement, iColumn, strText.data(), static_cast<int>(strText.size()), SQLITE_TRANSIENT);
      break;
    }
  }
}

void InsertRow(sqlite3* pDb, FuzzedDataProvider& input) {
  sqlite3_stmt* pRaw = nullptr;
  sqlite3_prepare_v2(pDb,
                     "insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values "
                     "(?,?,?,?,?,?,?)",
                     -1, &pRaw, nullptr);
  const std::unique_ptr<sqlite3_stmt, StatementFinalize> pStatement(pRaw);
  const bool bWild = input.ConsumeIntegralInRange(0, 3) == 0;
  sqlite3_bind_int64(pRaw, 1,
                     input.ConsumeBool() ? input.ConsumeIntegralInRange(1, 40) : input.ConsumeIntegral<int64_t>());
  for (int iColumn = 2; iColumn <= 6; ++iColumn) {
    if (bWild) {
      Bind(pRaw, iColumn, input);
    } else if (iColumn == 4 || iColumn == 5) {
      sqlite3_bind_text(pRaw, iColumn, "name", -1, SQLITE_STATIC);
    } else {
      sqlite3_bind_int(pRaw, iColumn, input.ConsumeIntegralInRange(0, 1));
    }
  }
  Bind(pRaw, 7, input);
  sqlite3_step(pRaw);
}

std::string Serialize(sqlite3* pDb) {
  sqlite3_int64 i64Size = 0;
  unsigned char* pBytes = sqlite3_serialize(pDb, "main", &i64Size, 0);
  std::string strBytes(reinterpret_cast<const char*>(pBytes), pBytes == nullptr ? 0 : static_cast<size_t>(i64Size));
  sqlite3_free(pBytes);
  return strBytes;
}

void SetWalVersion(std::string& strFile) {
  constexpr size_t kVersions = 18;
  if (strFile.size() > kVersions + 1) {
    strFile[kVersions] = 2;
    strFile[kVersions + 1] = 2;
  }
}

std::string BigEndian(uint32_t uNumber) {
  return {static_cast<char>(uNumber >> 24), static_cast<char>(uNumber >> 16 & 0xff),
          static_cast<char>(uNumber >> 8 & 0xff), static_cast<char>(uNumber & 0xff)};
}

// The running checksum of a write-ahead log.
struct LogSum {
  uint32_t u0 = 0;
  uint32_t u1 = 0;
  void Add(std::string_view svBytes) {
    for (size_t i = 0; i + 8 <= svBytes.size(); i += 8) {
      uint32_t aWords[2];
      memcpy(aWords, svBytes.data() + i, sizeof(aWords));
      u0 += aWords[0] + u1;
      u1 += aWords[1] + u0;
    }
  }
  std::string Text() const { return BigEndian(u0) + BigEndian(u1); }
};

// A log that brings the older file to the state of the newer one.
std::string MakeLog(const std::string& strOlder, const std::string& strNewer, uint32_t uPageSize) {
  constexpr uint32_t kLittleEndianSums = 0x377f0682;
  constexpr uint32_t kVersion = 3007000;
  const std::string strSalts = BigEndian(0x12345678) + BigEndian(0x9abcdef0);
  std::string strLog =
      BigEndian(kLittleEndianSums) + BigEndian(kVersion) + BigEndian(uPageSize) + BigEndian(0) + strSalts;
  LogSum sum;
  sum.Add(strLog);
  strLog += sum.Text();
  const auto uPages = static_cast<uint32_t>(strNewer.size() / uPageSize);
  for (uint32_t uPage = 1; uPage <= uPages; ++uPage) {
    const std::string_view svPage = std::string_view(strNewer).substr(size_t{uPage - 1} * uPageSize, uPageSize);
    const bool bLast = uPage == uPages;
    if (!bLast && strOlder.size() >= size_t{uPage} * uPageSize &&
        strOlder.compare(size_t{uPage - 1} * uPageSize, uPageSize, svPage) == 0) {
      continue;
    }
    const std::string strHead = BigEndian(uPage) + BigEndian(bLast ? uPages : 0);
    sum.Add(strHead);
    sum.Add(svPage);
    strLog += strHead + strSalts + sum.Text();
    strLog += svPage;
  }
  return strLog;
}

void Damage(std::string& strBytes, FuzzedDataProvider& input) {
  const int iSpots = input.ConsumeIntegralInRange(0, 8);
  for (int i = 0; i < iSpots && !strBytes.empty(); ++i) {
    const auto uAt = input.ConsumeIntegralInRange<size_t>(0, strBytes.size() - 1);
    strBytes[uAt] = input.ConsumeIntegral<char>();
  }
  if (input.ConsumeIntegralInRange(0, 7) == 0) {
    strBytes.resize(input.ConsumeIntegralInRange<size_t>(0, strBytes.size()));
  }
}

}  // namespace

DatabaseBytes CookDatabase(FuzzedDataProvider& input) {
  sqlite3* pRaw = nullptr;
  FUZZ_CHECK(sqlite3_open(":memory:", &pRaw) == SQLITE_OK);
  const std::unique_ptr<sqlite3, DbClose> pDb(pRaw);
  uint32_t uPageSize = 4096;
  if (input.ConsumeIntegralInRange(0, 3) == 0) {
    uPageSize = 512;
    Run(pRaw, "PRAGMA page_size = 512;");
  }
  Run(pRaw, input.ConsumeBool() ? kOwnTable : kLooseTable);
  const int iRows = input.ConsumeIntegralInRange(0, 6);
  for (int i = 0; i < iRows; ++i) {
    InsertRow(pRaw, input);
  }
  if (input.ConsumeIntegralInRange(0, 2) == 0) {
    Run(pRaw, input.PickValueInArray(kExtras));
  }
  DatabaseBytes bytes;
  bytes.strFile = Serialize(pRaw);
  if (input.ConsumeBool()) {
    SetWalVersion(bytes.strFile);
    const int iMoreRows = input.ConsumeIntegralInRange(0, 3);
    for (int i = 0; i < iMoreRows; ++i) {
      InsertRow(pRaw, input);
    }
    if (iMoreRows != 0) {
      std::string strNewer = Serialize(pRaw);
      SetWalVersion(strNewer);
      bytes.strLog = MakeLog(bytes.strFile, strNewer, uPageSize);
    }
  }
  if (input.ConsumeIntegralInRange(0, 2) == 0) {
    Damage(bytes.strFile, input);
    Damage(bytes.strLog, input);
  }
  return bytes;
}
