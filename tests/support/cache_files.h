// Looking into cache files from outside, and spoiling them.
#ifndef QMLOGCACHE_TESTS_SUPPORT_CACHE_FILES_H_
#define QMLOGCACHE_TESTS_SUPPORT_CACHE_FILES_H_

#include <sqlite3.h>
#include <sys/stat.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

// A connection beside the ones under test, as an operator's shell is. Its statements are not among those kept.
class CShell {
 public:
  explicit CShell(const std::string& strFile) {
    if (sqlite3_open_v2(strFile.c_str(), &m_pDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
      throw std::runtime_error("sqlite3_open_v2");
    }
    sqlite3_busy_timeout(m_pDb, 30000);
  }
  ~CShell() { sqlite3_close_v2(m_pDb); }
  CShell(const CShell&) = delete;
  CShell& operator=(const CShell&) = delete;

  // Rows of one statement, each with its columns joined by "|".
  std::vector<std::string> Run(const std::string& strSql) {
    sqlite3_stmt* pStmt = nullptr;
    std::vector<std::string> vecRows;
    int iRet = sqlite3_prepare_v2(m_pDb, strSql.c_str(), -1, &pStmt, nullptr);
    while (iRet == SQLITE_OK && (iRet = sqlite3_step(pStmt)) == SQLITE_ROW) {
      std::string strRow;
      for (int i = 0; i < sqlite3_column_count(pStmt); ++i) {
        const auto* pText = reinterpret_cast<const char*>(sqlite3_column_text(pStmt, i));
        strRow += (i == 0 ? "" : "|") + std::string(pText == nullptr ? "NULL" : pText);
      }
      vecRows.push_back(strRow);
      iRet = SQLITE_OK;
    }
    sqlite3_finalize(pStmt);
    if (iRet != SQLITE_DONE) {
      throw std::runtime_error(strSql + ": " + sqlite3_errmsg(m_pDb));
    }
    return vecRows;
  }

 private:
  sqlite3* m_pDb = nullptr;
};

inline bool Exists(const std::string& strFile) {
  struct stat info {};
  return lstat(strFile.c_str(), &info) == 0;
}

// The data ids of the file's rows, ascending.
inline std::vector<unsigned long long> IdsOf(const std::string& strFile) {
  CShell shell(strFile);
  std::vector<unsigned long long> vecIds;
  for (const std::string& strRow : shell.Run("select dataid from logcache order by dataid")) {
    vecIds.push_back(std::stoull(strRow));
  }
  return vecIds;
}

// Brings the file's log into it and overwrites the page where the rows are, so that the header stays readable.
inline void DamageRows(const std::string& strFile) {
  {
    CShell shell(strFile);
    shell.Run("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  std::fstream stream(strFile, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(4096);
  stream << std::string(4096, '\x5a');
}

#endif  // QMLOGCACHE_TESTS_SUPPORT_CACHE_FILES_H_
