#include "host/status/cache_rows.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

namespace {

using Clock = CCacheRows::Clock;

// Of SQLite's machine, between two looks at the clock.
constexpr int kInstructionsALook = 2000;
// The time of change of what is to be counted again after a pause.
constexpr int64_t kNotCounted = -2;
// SQLite takes a file of one byte for an empty one, too.
constexpr uint64_t kEmptySize = 1;

struct DatabaseCloser {
  void operator()(sqlite3* pDatabase) const { sqlite3_close_v2(pDatabase); }
};
struct StatementCloser {
  void operator()(sqlite3_stmt* pStatement) const { sqlite3_finalize(pStatement); }
};

int IsLate(void* pDeadline) {
  return Clock::now() > *static_cast<const Clock::time_point*>(pDeadline) ? 1 : 0;
}

// Nothing when there is something else than a file. SQLite opens a side file that is there, and would wait for ever for
// somebody at the other end of a pipe.
std::optional<uint64_t> SizeOfFile(const std::string& strFile) {
  struct stat info {};
  if (lstat(strFile.c_str(), &info) != 0) {
    return errno == ENOENT ? std::optional<uint64_t>(0) : std::nullopt;
  }
  return S_ISREG(info.st_mode) ? std::optional(static_cast<uint64_t>(info.st_size)) : std::nullopt;
}

// Whoever opens a file first reads its whole log, and nothing ends that early.
bool IsReadable(const std::string& strFile, uint64_t u64Largest) {
  const std::optional<uint64_t> optSize = SizeOfFile(strFile);
  const std::optional<uint64_t> optLog = SizeOfFile(strFile + "-wal");
  return optSize && *optSize > kEmptySize && optLog && *optLog <= kLargestCounted && *optSize <= u64Largest - *optLog &&
         SizeOfFile(strFile + "-journal") && SizeOfFile(strFile + "-shm");
}

struct MemoryReleaser {
  void operator()(char* pszText) const { std::free(pszText); }
};

// The number that a query about the data ids below one tells.
std::optional<int64_t> Ask(const std::string& strFile, const char* pszQuery, int64_t i64DataId) {
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
  const int iPrepared = sqlite3_prepare_v2(pDatabase.get(), pszQuery, -1, &pPrepared, nullptr);
  const std::unique_ptr<sqlite3_stmt, StatementCloser> pStatement(pPrepared);
  if (iPrepared != SQLITE_OK || sqlite3_bind_int64(pStatement.get(), 1, i64DataId) != SQLITE_OK ||
      sqlite3_step(pStatement.get()) != SQLITE_ROW) {
    return std::nullopt;
  }
  return sqlite3_column_int64(pStatement.get(), 0);
}

}  // namespace

std::string ResolvedDirectory(const std::string& strDirectory) {
  const std::unique_ptr<char, MemoryReleaser> pszReal(realpath(strDirectory.c_str(), nullptr));
  return pszReal ? std::string(pszReal.get()) + "/" : strDirectory;
}

std::optional<uint64_t> CountCacheRows(const std::string& strFile) {
  if (!IsReadable(strFile, kLargestCounted)) {
    return std::nullopt;
  }
  // COUNT(*) alone would be a single instruction, which the deadline cannot end.
  const auto optRows = Ask(strFile, "SELECT COUNT(*) FROM logcache WHERE dataid <= ?", INT64_MAX);
  return optRows ? std::optional(static_cast<uint64_t>(*optRows)) : std::nullopt;
}

std::optional<bool> HasRowsBefore(const std::string& strFile, uint64_t u64DataId) {
  if (const auto optSize = SizeOfFile(strFile); optSize && *optSize <= kEmptySize) {
    return false;
  }
  // No greater data id is a key.
  const auto i64DataId = static_cast<int64_t>(std::min<uint64_t>(u64DataId, INT64_MAX));
  const auto optHas = IsReadable(strFile, UINT64_MAX)
                          ? Ask(strFile, "SELECT EXISTS (SELECT 1 FROM logcache WHERE dataid < ?)", i64DataId)
                          : std::nullopt;
  return optHas ? std::optional(*optHas != 0) : std::nullopt;
}

void CCacheRows::Fill(const std::string& strDirectory, CacheContents& contents, Clock::time_point now,
                      std::chrono::milliseconds budget) {
  const Clock::time_point end = Clock::now() + budget;
  // A cache file that is a link is not counted, and SQLite tells it from a directory that is one by no other way.
  const std::string strReal = ResolvedDirectory(strDirectory);
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
