#include "host/status/cache_rows.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

namespace {

using Clock = CCacheRows::Clock;

// Of SQLite's machine, between two looks at the clock.
constexpr int kInstructionsALook = 2000;
// The time of change of what is to be counted again after a pause.
constexpr int64_t kNotCounted = -2;

struct DatabaseCloser {
  void operator()(sqlite3* pDatabase) const { sqlite3_close_v2(pDatabase); }
};
struct StatementCloser {
  void operator()(sqlite3_stmt* pStatement) const { sqlite3_finalize(pStatement); }
};

int IsLate(void* pDeadline) {
  return Clock::now() > *static_cast<const Clock::time_point*>(pDeadline) ? 1 : 0;
}

// SQLite opens a side file that is there, and would wait for ever for somebody at the other end of a pipe.
bool IsFileOrMissing(const std::string& strFile) {
  struct stat info {};
  return lstat(strFile.c_str(), &info) == 0 ? S_ISREG(info.st_mode) : errno == ENOENT;
}

bool IsCountable(const std::string& strFile) {
  struct stat info {};
  return lstat(strFile.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 1 &&
         static_cast<uint64_t>(info.st_size) <= kLargestCounted && IsFileOrMissing(strFile + "-journal") &&
         IsFileOrMissing(strFile + "-wal") && IsFileOrMissing(strFile + "-shm");
}

struct MemoryReleaser {
  void operator()(char* pszText) const { std::free(pszText); }
};

// Without links and with a slash at its end. As it was given when it cannot be resolved: then nothing is counted there.
std::string Resolved(const std::string& strDirectory) {
  const std::unique_ptr<char, MemoryReleaser> pszReal(realpath(strDirectory.c_str(), nullptr));
  return pszReal ? std::string(pszReal.get()) + "/" : strDirectory;
}

}  // namespace

std::optional<uint64_t> CountCacheRows(const std::string& strFile) {
  if (!IsCountable(strFile)) {
    return std::nullopt;
  }
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kLongestCountMs);
  sqlite3* pOpened = nullptr;
  const int iOpened = sqlite3_open_v2(strFile.c_str(), &pOpened,
                                      SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, nullptr);
  const std::unique_ptr<sqlite3, DatabaseCloser> pDatabase(pOpened);
  if (iOpened != SQLITE_OK) {
    return std::nullopt;
  }
  for (const auto& [iSetting, iValue] : {std::pair{SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1},
                                         {SQLITE_DBCONFIG_DEFENSIVE, 1},
                                         {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
                                         {SQLITE_DBCONFIG_ENABLE_VIEW, 0}}) {
    if (sqlite3_db_config(pDatabase.get(), iSetting, iValue, nullptr) != SQLITE_OK) {
      return std::nullopt;
    }
  }
  sqlite3_busy_timeout(pDatabase.get(), 0);
  sqlite3_progress_handler(pDatabase.get(), kInstructionsALook, IsLate, &deadline);
  sqlite3_stmt* pPrepared = nullptr;
  const int iPrepared = sqlite3_prepare_v2(pDatabase.get(), "SELECT COUNT(*) FROM logcache", -1, &pPrepared, nullptr);
  const std::unique_ptr<sqlite3_stmt, StatementCloser> pStatement(pPrepared);
  if (iPrepared != SQLITE_OK || sqlite3_step(pStatement.get()) != SQLITE_ROW) {
    return std::nullopt;
  }
  return static_cast<uint64_t>(sqlite3_column_int64(pStatement.get(), 0));
}

void CCacheRows::Fill(const std::string& strDirectory, CacheContents& contents, Clock::time_point now,
                      std::chrono::milliseconds budget) {
  const Clock::time_point end = Clock::now() + budget;
  // A cache file that is a link is not counted, and SQLite tells it from a directory that is one by no other way.
  const std::string strReal = Resolved(strDirectory);
  std::map<std::string, Counted> mapLeft;
  for (CacheFile& file : contents.vecFiles) {
    Counted counted;
    if (const auto it = m_mapCounted.find(file.strFile); it != m_mapCounted.end()) {
      counted = it->second;
    }
    const bool bNew = counted.i64ChangedNs == -1;
    const bool bDue = counted.i64ChangedNs != file.i64ChangedNs &&
                      (bNew || now - counted.when >= std::chrono::seconds(kCountPauseSeconds));
    if (bDue && Clock::now() < end) {
      const std::optional<uint64_t> optRows = CountCacheRows(strReal + file.strFile);
      counted = {optRows, optRows ? file.i64ChangedNs : kNotCounted, now};
    }
    file.optRows = counted.optRows;
    mapLeft.emplace(file.strFile, counted);
  }
  m_mapCounted.swap(mapLeft);
}
