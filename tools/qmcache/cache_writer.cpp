#include "tools/qmcache/cache_writer.h"

#include <sqlite3.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <utility>

#include "db/log_cache_db.h"

namespace {

constexpr size_t kRowsAtOnce = 1000;
constexpr size_t kBytesAtOnce = size_t{16} << 20;
constexpr char kInsert[] =
    "INSERT INTO logcache (dataid, priv, msgtype, product, combo, datatype, data) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7) "
    "ON CONFLICT(dataid) DO NOTHING";

struct Close {
  void operator()(sqlite3* pDb) const {
    CLogCacheDb db;
    db.CloseDbFileHandle(&pDb);
  }
};
struct Finalize {
  void operator()(sqlite3_stmt* pStmt) const { sqlite3_finalize(pStmt); }
};

void BindText(sqlite3_stmt* pStmt, int iAt, const std::string& strText) {
  sqlite3_bind_text64(pStmt, iAt, strText.data(), strText.size(), SQLITE_STATIC, SQLITE_UTF8);
}

int Insert(sqlite3_stmt* pStmt, const StoredRow& row) {
  int iColumn = 0;
  sqlite3_bind_int64(pStmt, ++iColumn, row.i64RowId);
  sqlite3_bind_int64(pStmt, ++iColumn, *row.priv);
  sqlite3_bind_int64(pStmt, ++iColumn, *row.msgType);
  BindText(pStmt, ++iColumn, *row.product);
  BindText(pStmt, ++iColumn, *row.combo);
  sqlite3_bind_int64(pStmt, ++iColumn, *row.dataType);
  BindText(pStmt, ++iColumn, *row.data);
  const int iResult = sqlite3_step(pStmt);
  sqlite3_reset(pStmt);
  return iResult;
}

}  // namespace

CCacheWriter::CCacheWriter(std::string strDirectory) : m_strDirectory(std::move(strDirectory)) {}

CCacheWriter::~CCacheWriter() = default;

void CCacheWriter::Add(const StoredRow& row, const CacheRecord& record) {
  Waiting& waiting = m_vecWaiting.emplace_back(Waiting{record.strGuid, row});
  // Columns may be what they cannot be, where the text is right.
  waiting.row.priv = record.iPriv;
  waiting.row.msgType = record.iMsgType;
  waiting.row.dataType = row.dataType == kBase64 ? kBase64 : kPlain;
  m_uBytes += row.data ? row.data->size() : 0;
  if (m_vecWaiting.size() >= kRowsAtOnce || m_uBytes >= kBytesAtOnce) {
    Finish();
  }
}

void CCacheWriter::Finish() {
  std::map<std::string, std::vector<const StoredRow*>> mapBySender;
  for (const Waiting& waiting : m_vecWaiting) {
    mapBySender[waiting.strSender].push_back(&waiting.row);
  }
  for (const auto& [strSender, vecRows] : mapBySender) {
    WriteFile(strSender, vecRows);
  }
  m_vecWaiting.clear();
  m_uBytes = 0;
}

void CCacheWriter::WriteFile(const std::string& strSender, const std::vector<const StoredRow*>& vecRows) {
  const std::string strFile = m_strDirectory + "/" + strSender + ".db";
  CLogCacheDb db;
  if (m_setSound.insert(strFile).second && db.ExamineDbFile(CPString(strFile.c_str())) == DbCheck::Damaged) {
    throw std::runtime_error(strFile + " is damaged itself; move it away first, with its -wal and -shm");
  }
  const std::unique_ptr<sqlite3, Close> pDb(db.GetDbFileHandle(CPString(strFile.c_str())));
  sqlite3_stmt* pRaw = nullptr;
  int iResult =
      pDb == nullptr ? SQLITE_CANTOPEN : sqlite3_exec(pDb.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  if (iResult == SQLITE_OK) {
    iResult = sqlite3_prepare_v2(pDb.get(), kInsert, -1, &pRaw, nullptr);
  }
  std::unique_ptr<sqlite3_stmt, Finalize> pStmt(pRaw);
  uint64_t u64Written = 0;
  for (size_t i = 0; i < vecRows.size() && iResult == SQLITE_OK; ++i) {
    const int iStep = Insert(pRaw, *vecRows[i]);
    iResult = iStep == SQLITE_DONE ? SQLITE_OK : iStep;
    u64Written += static_cast<uint64_t>(sqlite3_changes(pDb.get()));
  }
  if (iResult == SQLITE_OK) {
    iResult = sqlite3_exec(pDb.get(), "COMMIT", nullptr, nullptr, nullptr);
  }
  if (iResult != SQLITE_OK) {
    throw std::runtime_error("cannot write " + strFile + ": " +
                             (pDb != nullptr ? sqlite3_errmsg(pDb.get()) : "it cannot be opened"));
  }
  m_u64Written += u64Written;
  m_u64AlreadyThere += vecRows.size() - u64Written;
}
