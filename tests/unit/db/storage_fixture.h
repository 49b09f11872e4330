// Fixture for the layers that keep data on disk: a directory of the test's own, the log captured, no faults.
#ifndef QMLOGCACHE_TESTS_UNIT_DB_STORAGE_FIXTURE_H_
#define QMLOGCACHE_TESTS_UNIT_DB_STORAGE_FIXTURE_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "db/log_cache_db.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "tests/support/log_capture.h"
#include "tests/support/storage_faults.h"
#include "tests/unit/platform/temporary_directory.h"

class StorageTest : public ::testing::Test {
 protected:
  StorageTest() {
    CStorageFaults::Reset();
    CLogCapture::Reset();
    g_hLog = LogInit(kMainChannel);
  }
  ~StorageTest() override {
    CStorageFaults::Reset();
    CLogCapture::Reset();
    g_hLog = nullptr;
  }

  std::string Path(const std::string& strName) const { return m_directory.Path(strName); }

  CTemporaryDirectory m_directory;
};

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

// No descriptor can be opened while it lives.
class CNoDescriptors {
 public:
  CNoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &m_old);
    const rlimit none{0, m_old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~CNoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_old); }
  CNoDescriptors(const CNoDescriptors&) = delete;
  CNoDescriptors& operator=(const CNoDescriptors&) = delete;

 private:
  rlimit m_old{};
};

inline std::string BytesOf(const std::string& strFile) {
  std::ifstream stream(strFile, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline mode_t ModeOf(const std::string& strFile) {
  struct stat info {};
  EXPECT_EQ(0, lstat(strFile.c_str(), &info)) << strFile;
  return info.st_mode & 07777;
}

inline bool Exists(const std::string& strFile) {
  struct stat info {};
  return lstat(strFile.c_str(), &info) == 0;
}

// Bytes that are no database, longer than a header.
inline std::string NoDatabase() {
  std::string strBytes;
  for (unsigned int i = 0; i < 8192; ++i) {
    strBytes += static_cast<char>(i * 7 + i / 256 + 1);
  }
  return strBytes;
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

inline std::vector<unsigned long long> IdsOf(const std::string& strFile) {
  CShell shell(strFile);
  std::vector<unsigned long long> vecIds;
  for (const std::string& strRow : shell.Run("select dataid from logcache order by dataid")) {
    vecIds.push_back(std::stoull(strRow));
  }
  return vecIds;
}

#endif  // QMLOGCACHE_TESTS_UNIT_DB_STORAGE_FIXTURE_H_
