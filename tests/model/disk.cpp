#include "tests/model/disk.h"

#include <absl/strings/escaping.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "tests/support/cache_files.h"

namespace {

constexpr int kPage = 4096;

// A connection that neither checkpoints nor removes the log when it goes.
class CWatcher {
 public:
  explicit CWatcher(const std::string& strFile) : m_strFile(strFile) {
    sqlite3* pDb = nullptr;
    const int iRet = sqlite3_open_v2(strFile.c_str(), &pDb, SQLITE_OPEN_READWRITE, nullptr);
    m_pDb.reset(pDb);
    Check(iRet, SQLITE_OK);
    int iPersist = 1;
    sqlite3_file_control(pDb, nullptr, SQLITE_FCNTL_PERSIST_WAL, &iPersist);
    sqlite3_db_config(pDb, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  }

  void ForEach(const char* pszSql, const std::function<void(sqlite3_stmt*)>& row) {
    sqlite3_stmt* pRaw = nullptr;
    Check(sqlite3_prepare_v2(m_pDb.get(), pszSql, -1, &pRaw, nullptr), SQLITE_OK);
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> pStmt(pRaw, &sqlite3_finalize);
    int iRet = SQLITE_OK;
    while ((iRet = sqlite3_step(pRaw)) == SQLITE_ROW) {
      row(pRaw);
    }
    Check(iRet, SQLITE_DONE);
  }

  void CheckIntegrity() {
    ForEach("PRAGMA integrity_check", [this](sqlite3_stmt* pStmt) {
      if (Text(pStmt, 0) != "ok") {
        throw Mismatch(m_strFile + ": integrity_check: " + Text(pStmt, 0));
      }
    });
  }

  static std::string Text(sqlite3_stmt* pStmt, int iCol) {
    const auto* pText = static_cast<const char*>(sqlite3_column_blob(pStmt, iCol));
    return {pText == nullptr ? "" : pText, static_cast<size_t>(sqlite3_column_bytes(pStmt, iCol))};
  }

 private:
  void Check(int iRet, int iExpected) {
    if (iRet != iExpected) {
      throw Mismatch(m_strFile + ": " + sqlite3_errmsg(m_pDb.get()));
    }
  }

  std::string m_strFile;
  std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)> m_pDb{nullptr, &sqlite3_close_v2};
};

void Overwrite(const std::string& strFile, std::streamoff offset, char cByte) {
  std::fstream stream(strFile, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(offset);
  stream << std::string(kPage, cByte);
}

}  // namespace

std::map<unsigned long long, Row> ReadRows(const std::string& strFile) {
  CWatcher watcher(strFile);
  watcher.CheckIntegrity();
  std::map<unsigned long long, Row> mapRows;
  watcher.ForEach("select dataid, priv, msgtype, datatype, product, combo, data, reserved1, reserved2 from logcache",
                  [&](sqlite3_stmt* pStmt) {
                    Row row;
                    int iCol = 0;
                    const auto u64DataId = static_cast<unsigned long long>(sqlite3_column_int64(pStmt, iCol));
                    row.iPriv = sqlite3_column_int(pStmt, ++iCol);
                    row.iMsgType = sqlite3_column_int(pStmt, ++iCol);
                    row.iDataType = sqlite3_column_int(pStmt, ++iCol);
                    row.strProduct = CWatcher::Text(pStmt, ++iCol);
                    row.strCombo = CWatcher::Text(pStmt, ++iCol);
                    row.strData = CWatcher::Text(pStmt, ++iCol);
                    if (row.iDataType == 1 && !absl::Base64Unescape(std::string(row.strData), &row.strData)) {
                      throw Mismatch(strFile + ": not base64: " + row.strData);
                    }
                    for (int i = 0; i < 2; ++i) {
                      if (sqlite3_column_type(pStmt, ++iCol) != SQLITE_NULL) {
                        throw Mismatch(strFile + ": a reserved column is written");
                      }
                    }
                    mapRows.emplace(u64DataId, std::move(row));
                  });
  return mapRows;
}

bool HasTable(const std::string& strFile) {
  CWatcher watcher(strFile);
  watcher.CheckIntegrity();
  bool bTable = false;
  watcher.ForEach("select name from sqlite_master", [&](sqlite3_stmt*) { bTable = true; });
  return bTable;
}

void SpoilFile(const std::string& strFile, Spoiling spoiling, bool bSound) {
  if (bSound) {
    CShell shell(strFile);  // the last one to close it: its log goes
    shell.Run("PRAGMA wal_checkpoint(TRUNCATE)");
    if (spoiling == kDropTable) {
      shell.Run("drop table logcache");
    }
  }
  switch (spoiling) {
    case kGarbage:
      std::ofstream(strFile, std::ios::binary | std::ios::trunc) << std::string(size_t{2} * kPage, '\x5a');
      break;
    case kCutToByte:
      std::filesystem::resize_file(strFile, 1);
      break;
    case kCutToHeader:
      std::filesystem::resize_file(strFile, 100);
      break;
    case kCutToPage:
      std::filesystem::resize_file(strFile, kPage);
      break;
    case kCutToNothing:
      std::filesystem::resize_file(strFile, 0);
      break;
    case kDamageRows:
      Overwrite(strFile, kPage, '\x5a');
      break;
    case kRemove:
      std::filesystem::remove(strFile);
      break;
    default:
      break;
  }
}
