#include "db/sqlite_wrapper.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "db/wal_vfs.h"
#include "platform/storage_sync.h"

namespace {

constexpr std::array<const char*, 3> kSideFiles = {"-journal", "-wal", "-shm"};

// SQLite takes a file of one byte for an empty one, too: sound, and without the table that every insert needs.
constexpr off_t kEmptyFileSize = 1;

// The path with its directory's symbolic links resolved, so that SQLite may be told to follow none. The last component
// is kept as it is. Empty when the directory is not there.
std::string ResolveDirectory(const char* pszPath) {
  const std::string strPath(pszPath);
  const size_t uSlash = strPath.rfind('/');
  const std::string strDirectory = uSlash == std::string::npos ? "." : strPath.substr(0, uSlash + 1);
  const std::string strName = uSlash == std::string::npos ? strPath : strPath.substr(uSlash + 1);
  const std::unique_ptr<char, decltype(&free)> pResolved(realpath(strDirectory.c_str(), nullptr), &free);
  if (pResolved == nullptr || strName.empty()) {
    return {};
  }
  return std::string(pResolved.get()) + "/" + strName;
}

bool IsRegularFile(const char* pszPath, struct stat& info) {
  return lstat(pszPath, &info) == 0 && S_ISREG(info.st_mode);
}

// As much as readers allow. They are not waited for: one may keep its transaction open for hours.
void CheckpointWithoutWaiting(sqlite3* pDb, const char* pszDatabase) {
  sqlite3_busy_timeout(pDb, 0);
  static_cast<void>(sqlite3_wal_checkpoint_v2(pDb, pszDatabase, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr));
  sqlite3_busy_timeout(pDb, kBusyTimeoutMs);
}

// Runs after each commit. The transaction is done, so its result must not change with the checkpoint's; what a reader
// holds back is tried again by the next commit.
int TruncateLongLog(void* /*pArg*/, sqlite3* pDb, const char* pszDatabase, int iFrames) {
  if (iFrames >= kCheckpointFrames) {
    CheckpointWithoutWaiting(pDb, pszDatabase);
  }
  return SQLITE_OK;
}

void RestrictSchema(sqlite3* pDb) {
  sqlite3_db_config(pDb, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(pDb, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(pDb, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(pDb, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_db_config(pDb, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
}

int OpenConnection(const std::string& strPath, sqlite3** ppDb) {
  struct stat info {};
  if (lstat((strPath + "-journal").c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    return SQLITE_CANTOPEN;  // SQLite would open it, and wait for good if it is a FIFO
  }
  // One thread uses a connection, from open to close.
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_PRIVATECACHE;
  int iRet = sqlite3_open_v2(strPath.c_str(), ppDb, kFlags, WalVfsName());
  if (iRet != SQLITE_OK && sqlite3_extended_errcode(*ppDb) == SQLITE_CANTOPEN_SYMLINK) {
    // The directory is reached through a symbolic link, which it may be; the file itself may be none.
    sqlite3_close(*ppDb);
    *ppDb = nullptr;
    const std::string strResolved = ResolveDirectory(strPath.c_str());
    if (!strResolved.empty()) {
      iRet = sqlite3_open_v2(strResolved.c_str(), ppDb, kFlags, WalVfsName());
    }
  }
  if (iRet == SQLITE_OK) {
    sqlite3_busy_timeout(*ppDb, kBusyTimeoutMs);
    RestrictSchema(*ppDb);
  }
  return iRet;
}

// Whether the file's header says that it is written by way of a write-ahead log.
bool UsesWriteAheadLog(sqlite3* pDb) {
  constexpr int kVersions = 18;  // offset of the two bytes that tell how to write and how to read the file
  constexpr unsigned char kWal = 2;
  sqlite3_file* pFile = nullptr;
  std::array<unsigned char, 2> versions{};
  return sqlite3_file_control(pDb, nullptr, SQLITE_FCNTL_FILE_POINTER, static_cast<void*>(&pFile)) == SQLITE_OK &&
         pFile != nullptr && pFile->pMethods != nullptr &&
         pFile->pMethods->xRead(pFile, versions.data(), static_cast<int>(versions.size()), kVersions) == SQLITE_OK &&
         versions[0] == kWal && versions[1] == kWal;
}

int Pragma(sqlite3* pDb, const char* pszPragma) {
  return sqlite3_exec(pDb, pszPragma, nullptr, nullptr, nullptr);
}

// Moves a file that has only just been created to the write-ahead log, and sets what a commit is worth.
int UseWriteAheadLog(sqlite3* pDb) {
  int iPersist = 1;
  sqlite3_file_control(pDb, nullptr, SQLITE_FCNTL_PERSIST_WAL, &iPersist);
  sqlite3_db_config(pDb, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  sqlite3_wal_hook(pDb, TruncateLongLog, nullptr);
  if (!UsesWriteAheadLog(pDb)) {
    const int iRet = Pragma(pDb, "PRAGMA synchronous=EXTRA;PRAGMA journal_mode=WAL;");
    const bool bBusy = iRet == SQLITE_BUSY || iRet == SQLITE_LOCKED;
    if (iRet != SQLITE_OK && !bBusy) {
      return iRet;
    }
    if (bBusy || !UsesWriteAheadLog(pDb)) {
      // Somebody else has the file open for good, or SQLite will not have a log there (it tells no error then): stay
      // with the rollback journal this time, at full strength.
      return SQLITE_OK;
    }
  }
  // EXTRA is FULL for a write-ahead log, and still EXTRA should an operator put the file back to a rollback journal.
  constexpr int kSyncFull = 2;
  return Pragma(pDb, QmGetStorageSync() >= kSyncFull ? "PRAGMA synchronous=EXTRA;" : "PRAGMA synchronous=NORMAL;");
}

// A missing file is readable. By way of SQLite's VFS, which keeps locks that a plain close would drop.
bool IsFileReadable(const std::string& strPath) {
  constexpr int kBlockSize = 65536;
  struct stat info {};
  if (lstat(strPath.c_str(), &info) != 0) {
    return errno == ENOENT;
  }
  sqlite3_vfs* pVfs = sqlite3_vfs_find(nullptr);
  if (!S_ISREG(info.st_mode) || pVfs == nullptr) {
    return false;
  }
  const std::unique_ptr<void, decltype(&sqlite3_free)> pMemory(sqlite3_malloc(pVfs->szOsFile + kBlockSize),
                                                               &sqlite3_free);
  if (pMemory == nullptr) {
    return false;
  }
  auto* pFile = static_cast<sqlite3_file*>(pMemory.get());
  char* pBlock = static_cast<char*>(pMemory.get()) + pVfs->szOsFile;
  memset(pFile, 0, static_cast<size_t>(pVfs->szOsFile));
  int iOutFlags = 0;
  constexpr int kFlags = SQLITE_OPEN_READONLY | SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_NOFOLLOW;
  if (pVfs->xOpen(pVfs, strPath.c_str(), pFile, kFlags, &iOutFlags) != SQLITE_OK) {
    return false;
  }
  sqlite3_int64 i64Size = 0;
  int iRet = pFile->pMethods->xFileSize(pFile, &i64Size);
  for (sqlite3_int64 i64At = 0; iRet == SQLITE_OK && i64At < i64Size; i64At += kBlockSize) {
    const auto iWanted = static_cast<int>(std::min<sqlite3_int64>(kBlockSize, i64Size - i64At));
    iRet = pFile->pMethods->xRead(pFile, pBlock, iWanted, i64At);
  }
  pFile->pMethods->xClose(pFile);
  return iRet == SQLITE_OK;
}

}  // namespace

bool IsReadable(const char* pszPath) {
  return IsFileReadable(pszPath) && IsFileReadable(std::string(pszPath) + "-wal");
}

bool HasContents(const char* pszPath) {
  struct stat info {};
  return IsRegularFile(pszPath, info) && info.st_size > kEmptyFileSize;
}

bool IsCutShort(const char* pszPath) {
  struct stat info {};
  return IsRegularFile(pszPath, info) && info.st_size <= kEmptyFileSize;
}

int sqlite3_opendb(const char* pszPath, sqlite3** ppDb) {
  *ppDb = nullptr;
  struct stat info {};
  if (!IsRegularFile(pszPath, info)) {
    return SQLITE_CANTOPEN;
  }
  const int iRet = OpenConnection(pszPath, ppDb);
  return iRet == SQLITE_OK ? UseWriteAheadLog(*ppDb) : iRet;
}

int sqlite3_createdb(const char* pszPath, sqlite3** ppDb) {
  *ppDb = nullptr;
  const std::string strPath = ResolveDirectory(pszPath);
  if (strPath.empty()) {
    return SQLITE_CANTOPEN;
  }
  constexpr mode_t kOwnerOnly = 0600;
  const int iFile = open(strPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
  struct stat info {};
  if (iFile >= 0) {
    close(iFile);
  } else if (!IsRegularFile(strPath.c_str(), info) || info.st_size > kEmptyFileSize) {
    return SQLITE_CANTOPEN;
  }
  // What an earlier file left beside it must not be taken for this one's. Not before the file is known to be new: a file
  // that merely could not be looked at keeps its log.
  RemoveSideFiles(strPath.c_str());
  const int iRet = OpenConnection(strPath, ppDb);
  return iRet == SQLITE_OK ? Pragma(*ppDb, "PRAGMA synchronous=EXTRA;") : iRet;
}

int sqlite3_closedb(sqlite3* pDb) {
  return sqlite3_close(pDb);
}

int sqlite3_exec_sql(const char* pszSql, sqlite3* pDb) {
  return sqlite3_exec(pDb, pszSql, nullptr, nullptr, nullptr);
}

int sqlite3_exec_sql2(const char* pszSql, sqlite3* pDb, int (*pfnCallback)(void*, int, char**, char**), void* pArg) {
  return sqlite3_exec(pDb, pszSql, pfnCallback, pArg, nullptr);
}

int wrap_sqlite3_prepare(sqlite3* pDb, const char* pszSql, int nByte, sqlite3_stmt** ppStmt, const char** ppszTail) {
  return sqlite3_prepare_v2(pDb, pszSql, nByte, ppStmt, ppszTail);
}

int wrap_sqlite3_step(sqlite3_stmt* pStmt) {
  return sqlite3_step(pStmt);
}

const char* wrap_sqlite3_column_text(sqlite3_stmt* pStmt, int iCol) {
  return reinterpret_cast<const char*>(sqlite3_column_text(pStmt, iCol));
}

int wrap_sqlite3_finalize(sqlite3_stmt* pStmt) {
  return sqlite3_finalize(pStmt);
}

void RemoveSideFiles(const char* pszPath) {
  for (const char* pszSuffix : kSideFiles) {
    unlink((std::string(pszPath) + pszSuffix).c_str());
  }
}

void CheckpointOpenFile(sqlite3* pDb) {
  CheckpointWithoutWaiting(pDb, nullptr);
}

void RollBackJournal(const char* pszPath) {
  struct stat info {};
  if (!IsRegularFile((std::string(pszPath) + "-journal").c_str(), info) || !IsRegularFile(pszPath, info)) {
    return;
  }
  sqlite3* pDb = nullptr;
  // Any read does it. Whatever fails here fails again where the file is opened for its work, and is told there.
  if (OpenConnection(pszPath, &pDb) == SQLITE_OK) {
    static_cast<void>(Pragma(pDb, "PRAGMA schema_version;"));
  }
  sqlite3_close(pDb);
}

void CheckpointIntoFile(const char* pszPath) {
  struct stat info {};
  if (!IsRegularFile(pszPath, info) || !IsRegularFile((std::string(pszPath) + "-wal").c_str(), info) ||
      info.st_size == 0) {
    return;
  }
  sqlite3* pDb = nullptr;
  // Not by way of sqlite3_opendb: that may write to the file, and what is backed up is to be what was there. The log is
  // opened by the first read.
  if (OpenConnection(pszPath, &pDb) == SQLITE_OK &&
      sqlite3_exec(pDb, "PRAGMA schema_version;", nullptr, nullptr, nullptr) == SQLITE_OK) {
    // Readers are waited for: what stays in the log is not in the backup.
    static_cast<void>(sqlite3_wal_checkpoint_v2(pDb, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr));
  }
  sqlite3_close(pDb);
}
