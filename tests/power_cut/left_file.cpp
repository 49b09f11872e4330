#include "tests/power_cut/left_file.h"

#include <sqlite3.h>
#include <zlib.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "platform/base64.h"
#include "tests/power_cut/workload.h"

namespace {

constexpr int kBase64 = 1;

int AddText(void* pArg, int /*nColumn*/, char** ppValue, char** /*ppName*/) {
  auto& strText = *static_cast<std::string*>(pArg);
  strText += (strText.empty() ? "" : "; ") + std::string(ppValue[0] == nullptr ? "" : ppValue[0]);
  return 0;
}

int AddRow(void* pArg, int /*nColumn*/, char** ppValue, char** /*ppName*/) {
  Row row{std::stoull(ppValue[0]), std::stoi(ppValue[1]), std::stoi(ppValue[2]), ppValue[3], ppValue[4], ppValue[5]};
  if (std::stoi(ppValue[6]) == kBase64) {
    const std::unique_ptr<char, decltype(&free)> pDecoded(
        base64Decode(row.strData.data(), static_cast<int>(row.strData.size()), 0), &free);
    row.strData = pDecoded == nullptr ? "not base64" : pDecoded.get();
  }
  (*static_cast<Rows*>(pArg))[row.u64DataId] = std::move(row);
  return 0;
}

class CDatabase {
 public:
  explicit CDatabase(const std::string& strPath) {
    sqlite3_open_v2(strPath.c_str(), &m_pDb, SQLITE_OPEN_READWRITE, nullptr);
  }
  ~CDatabase() { sqlite3_close(m_pDb); }
  CDatabase(const CDatabase&) = delete;
  CDatabase& operator=(const CDatabase&) = delete;

  bool Run(const char* pszSql, int (*pfnRow)(void*, int, char**, char**), void* pArg) {
    return sqlite3_exec(m_pDb, pszSql, pfnRow, pArg, nullptr) == SQLITE_OK;
  }
  std::string Error() const { return sqlite3_errmsg(m_pDb); }

 private:
  sqlite3* m_pDb = nullptr;
};

}  // namespace

LeftFile ReadLeftFile(const std::string& strPath) {
  LeftFile left;
  if (!std::filesystem::exists(strPath)) {
    return left;
  }
  CDatabase database(strPath);
  std::string strCheck;
  if (!database.Run("pragma integrity_check;", AddText, &strCheck)) {
    return {LeftFile::State::Damaged, database.Error(), {}};
  }
  if (strCheck != "ok") {
    return {LeftFile::State::Damaged, strCheck, {}};
  }
  std::string strTables;
  std::string strPages;
  if (!database.Run("select count(*) from sqlite_schema where name='logcache';", AddText, &strTables) ||
      !database.Run("pragma page_count;", AddText, &strPages)) {
    return {LeftFile::State::Damaged, database.Error(), {}};
  }
  if (strTables == "0") {
    left.state = strPages == "0" ? LeftFile::State::Sound : LeftFile::State::Tableless;
    return left;
  }
  if (!database.Run("select dataid, priv, msgtype, product, combo, data, datatype from logcache;", AddRow,
                    &left.rows)) {
    return {LeftFile::State::Damaged, database.Error(), {}};
  }
  return left;
}

std::string BackupProblem(const std::string& strPath) {
  constexpr size_t kPage = 4096;
  const std::string strBackup = strPath.substr(0, strPath.rfind('.')) + "1.db.zip";
  if (!std::filesystem::exists(strBackup)) {
    return "no backup";
  }
  gzFile pBackup = gzopen(strBackup.c_str(), "rb");
  if (pBackup == nullptr) {
    return "a backup that cannot be opened";
  }
  std::string strBytes;
  std::array<char, kPage> block{};
  int iRead = 0;
  while ((iRead = gzread(pBackup, block.data(), block.size())) > 0) {
    strBytes.append(block.data(), static_cast<size_t>(iRead));
  }
  const bool bPlain = gzdirect(pBackup) != 0;
  // A stream that is cut off shows at the close, a wrong checksum in the read.
  const bool bWhole = gzclose(pBackup) == Z_OK && iRead == 0 && !bPlain;
  if (!bWhole || strBytes.empty() || strBytes.size() % kPage != 0) {
    return "a backup that is not whole";
  }
  return strBytes.starts_with(std::string(kDamagedBytes, kDamagedByte)) ? "" : "a backup of another file";
}
