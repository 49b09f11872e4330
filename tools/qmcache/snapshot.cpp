#include "tools/qmcache/snapshot.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <memory>
#include <utility>

#include "db/wal_vfs.h"
#include "tools/qmcache/interruption.h"
#include "tools/qmcache/read_only_vfs.h"
#include "tools/qmcache/sqlite_uri.h"

namespace {

constexpr int kBusyTimeoutMs = 10000;
constexpr int kPagesAtOnce = 1000;

struct Close {
  void operator()(sqlite3* pDb) const { sqlite3_close(pDb); }
};
using Connection = std::unique_ptr<sqlite3, Close>;

bool IsRegularFile(const std::string& strPath) {
  struct stat info {};
  return lstat(strPath.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// Null when it cannot be opened, or its settings cannot be made.
Connection Open(const std::string& strUri, int iFlags, const char* pszVfs, const char* pszSettings) {
  sqlite3* pRaw = nullptr;
  iFlags |= SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_PRIVATECACHE;
  const int iResult = pszVfs == nullptr ? SQLITE_NOMEM : sqlite3_open_v2(strUri.c_str(), &pRaw, iFlags, pszVfs);
  Connection pDb(pRaw);
  if (iResult != SQLITE_OK) {
    return nullptr;
  }
  sqlite3_busy_timeout(pRaw, kBusyTimeoutMs);
  sqlite3_db_config(pRaw, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(pRaw, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(pRaw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  return sqlite3_exec(pRaw, pszSettings, nullptr, nullptr, nullptr) == SQLITE_OK ? std::move(pDb) : nullptr;
}

}  // namespace

bool TakeSnapshot(const std::string& strFile, const std::string& strTo) {
  if (!IsRegularFile(strFile) || !IsRegularFile(strFile + "-wal") || !IsRegularFile(strFile + "-shm")) {
    return false;
  }
  // The transaction begins with the first read, and outlasts the steps.
  const Connection pFrom =
      Open(UriOf(strFile, "?readonly_shm=1"), SQLITE_OPEN_READONLY, ReadOnlyVfsName(), "BEGIN; PRAGMA schema_version;");
  const Connection pTo = Open(UriOf(strTo, ""), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, WalVfsName(),
                              "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;");
  sqlite3_backup* pBackup =
      pFrom == nullptr || pTo == nullptr ? nullptr : sqlite3_backup_init(pTo.get(), "main", pFrom.get(), "main");
  if (pBackup == nullptr) {
    return false;
  }
  int iResult = SQLITE_OK;
  while (iResult == SQLITE_OK && SignalThatCame() == 0) {
    iResult = sqlite3_backup_step(pBackup, kPagesAtOnce);
  }
  sqlite3_backup_finish(pBackup);
  EndIfInterrupted();
  return iResult == SQLITE_DONE;
}
