#include "db/wal_vfs.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace {

constexpr char kName[] = "qmlogcache";

struct SyncedLogs {
  std::mutex mutex;  // guards the map
  // Logs whose names this process has made durable, and which file each was.
  std::map<std::string, std::pair<dev_t, ino_t>> mapLogs;
};

// Never destroyed: a thread may outlive static destruction.
SyncedLogs& Synced() {
  static auto& synced = *new SyncedLogs;
  return synced;
}

bool SyncDirectoryOf(const std::string& strPath) {
  const int iDirectory = open(strPath.substr(0, strPath.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (iDirectory < 0) {
    return false;
  }
  const bool bSynced = fsync(iDirectory) == 0;
  close(iDirectory);
  return bSynced;
}

// Whether the log's name survives a power cut. A log that is missing or empty is made anew by whoever writes to it, and
// SQLite's own sync takes care of it. One with contents may be left over from a process that was killed before that sync.
bool IsNameDurable(const char* pszPath) {
  struct stat info {};
  const bool bThere = lstat(pszPath, &info) == 0;
  const std::string strPath(pszPath);
  const std::pair identity(info.st_dev, info.st_ino);
  SyncedLogs& synced = Synced();
  {
    const std::lock_guard guard(synced.mutex);
    if (!bThere) {
      synced.mapLogs.erase(strPath);
      return false;
    }
    if (info.st_size == 0) {
      return false;
    }
    const auto it = synced.mapLogs.find(strPath);
    if (it != synced.mapLogs.end() && it->second == identity) {
      return true;
    }
  }
  if (!SyncDirectoryOf(strPath)) {
    return false;
  }
  const std::lock_guard guard(synced.mutex);
  synced.mapLogs[strPath] = identity;
  return true;
}

sqlite3_vfs* g_pBase = nullptr;  // set before the VFS is registered

int OpenFile(sqlite3_vfs* /*pVfs*/, const char* pszPath, sqlite3_file* pFile, int iFlags, int* piOutFlags) {
  if ((iFlags & SQLITE_OPEN_SUPER_JOURNAL) != 0) {
    pFile->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  }
  bool bDurable = false;
  if ((iFlags & SQLITE_OPEN_WAL) != 0 && pszPath != nullptr) {
    try {
      bDurable = IsNameDurable(pszPath);
    } catch (const std::exception&) {
      // Not known: SQLite syncs the directory.
    }
  }
  if (bDurable) {
    // Without the flag to create the log SQLite takes it for an old one, whose directory needs no sync.
    const int iRet = g_pBase->xOpen(g_pBase, pszPath, pFile, iFlags & ~SQLITE_OPEN_CREATE, piOutFlags);
    if (iRet != SQLITE_CANTOPEN) {
      return iRet;
    }
    // Another tool has removed it in between.
  }
  return g_pBase->xOpen(g_pBase, pszPath, pFile, iFlags, piOutFlags);
}

const char* Register() {
  g_pBase = sqlite3_vfs_find(nullptr);
  if (g_pBase == nullptr) {
    return nullptr;
  }
  // A copy: its other functions find what they need in pAppData, as they do under their own name.
  static sqlite3_vfs vfs = *g_pBase;
  vfs.pNext = nullptr;
  vfs.zName = kName;
  vfs.xOpen = OpenFile;
  return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK ? kName : nullptr;
}

}  // namespace

const char* WalVfsName() {
  static const char* const pszName = Register();
  return pszName;
}
