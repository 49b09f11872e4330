// Functions below the storage layers that delegate, and tell or fail on request: sqlite3_exec, sqlite3_close, fsync,
// fdatasync, stat, lstat, base64Encode, statvfs and QmGetModuleFilePath are defined in the test executable.
//
// All functions may be called from any thread; hooks run without a lock.
#ifndef QMLOGCACHE_TESTS_SUPPORT_STORAGE_FAULTS_H_
#define QMLOGCACHE_TESTS_SUPPORT_STORAGE_FAULTS_H_

#include <sys/statvfs.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

class CStorageFaults {
 public:
  // Back to plain delegation; forgets the statements.
  static void Reset();

  // The texts handed to sqlite3_exec since Reset that begin so.
  static std::vector<std::string> Statements(std::string_view svBeginning);
  // Called before each sqlite3_exec with its text; a non-zero answer is the call's result, and nothing is run.
  static void SetExecHook(std::function<int(std::string_view svSql)> hook);
  // sqlite3_close throws after it has closed.
  static void ThrowOnClose(bool bThrow);
  // Encoding gives null where the hook says true.
  static void SetEncodeHook(std::function<bool(std::string_view svData)> hook);
  // Syncs since Reset.
  static unsigned int FileSyncs();
  static unsigned int DirectorySyncs();
  // Syncs are counted and not done while this is on.
  static void SkipSyncs(bool bSkip);
  // Called before each sync with the path of what is synced.
  static void SetSyncHook(std::function<void(const std::string& strPath)> hook);
  // Called by stat and lstat; a non-zero answer is the error number with which the call fails.
  static void SetStatHook(std::function<int(std::string_view svPath)> hook);
  // What statvfs answers, and whether it fails. Empty: the real one.
  static void SetStatvfs(std::function<int(const char* pszPath, struct statvfs* pStat)> hook);
  // The directory that the running program seems to lie in. With an error number the question fails instead.
  static void SetModulePath(const std::string& strPath);
  static void FailModulePath(int iErrno);
};

#endif  // QMLOGCACHE_TESTS_SUPPORT_STORAGE_FAULTS_H_
