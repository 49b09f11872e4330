#include "tools/qmcache/read_only_vfs.h"

#include <sqlite3.h>
#include <sys/stat.h>

namespace {

constexpr char kName[] = "qmcache-read-only";
constexpr int kKept = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL;

sqlite3_vfs* g_pBase = nullptr;  // set before the VFS is registered

int OpenFile(sqlite3_vfs* /*pVfs*/, const char* pszPath, sqlite3_file* pFile, int iFlags, int* piOutFlags) {
  if ((iFlags & kKept) == 0) {
    return g_pBase->xOpen(g_pBase, pszPath, pFile, iFlags, piOutFlags);  // SQLite's own temporary files
  }
  pFile->pMethods = nullptr;
  struct stat info {};
  // A FIFO would be waited for.
  if (pszPath == nullptr || lstat(pszPath, &info) != 0 || !S_ISREG(info.st_mode)) {
    return SQLITE_CANTOPEN;
  }
  constexpr int kChanging = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_DELETEONCLOSE;
  return g_pBase->xOpen(g_pBase, pszPath, pFile, (iFlags & ~kChanging) | SQLITE_OPEN_READONLY, piOutFlags);
}

int DeleteFile(sqlite3_vfs* /*pVfs*/, const char* /*pszPath*/, int /*iSyncDirectory*/) {
  return SQLITE_IOERR_DELETE;
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
  vfs.xDelete = DeleteFile;
  return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK ? kName : nullptr;
}

}  // namespace

const char* ReadOnlyVfsName() {
  static const char* const pszName = Register();
  return pszName;
}
