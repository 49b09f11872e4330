// VACUUM, and the compressed backups of damaged files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "db/log_cache_db.h"
#include "db/sqlite_wrapper.h"
#include "platform/log_channels.h"

namespace {

constexpr size_t kBlockSize = 262144;
constexpr char kDbSuffix[] = ".db";
constexpr int kOlderBackup = 2;

// Puts an empty file in place that only its owner can read, so that gzopen neither makes a wider one nor follows a link.
void MakeOwnersFile(const char* pszPath) {
  constexpr mode_t kOwnerOnly = 0600;
  unlink(pszPath);
  const int iFile = open(pszPath, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
  if (iFile >= 0) {
    close(iFile);
  }
}

// Makes a file and its name durable. What fails here is nobody's to mend: the damaged file goes either way.
void SyncToDisk(const CPString& strFile) {
  const CPString strDirectory(strFile.View().substr(0, strFile.View().rfind('/') + 1));
  for (const char* pszPath : {strFile.c_str(), strDirectory.c_str()}) {
    const int iFile = open(pszPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (iFile >= 0) {
      static_cast<void>(fsync(iFile));
      close(iFile);
    }
  }
}

// For reading. Null for whatever is no regular file: a link is not followed, a FIFO not waited for.
FILE* OpenRegularFile(const char* pszPath) {
  const int iFile = open(pszPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (iFile < 0) {
    return nullptr;
  }
  struct stat info {};
  FILE* pFile = fstat(iFile, &info) == 0 && S_ISREG(info.st_mode) ? fdopen(iFile, "rb") : nullptr;
  if (pFile == nullptr) {
    close(iFile);
  }
  return pFile;
}

struct GzClose {
  void operator()(gzFile_s* pFile) const { gzclose(pFile); }
};
struct FileClose {
  void operator()(FILE* pFile) const { fclose(pFile); }
};

}  // namespace

int CLogCacheDb::ReleaseDbFileSpace(const CPString& strFile) {
  sqlite3* pHandle = GetDbFileHandle(strFile);
  if (pHandle == nullptr) {
    return -1;
  }
  const int iRet = sqlite3_exec_sql("VACUUM", pHandle);
  if (iRet != 0) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheDb::ReleaseDbFileSpace sqlite3_exec_sql error iRet[%x] strFile[%s]",
             static_cast<unsigned int>(iRet), strFile.c_str());
  } else {
    CheckpointOpenFile(pHandle);  // only now does the file itself become shorter
  }
  CloseDbFileHandle(&pHandle);
  return iRet;
}

int CLogCacheDb::GenZipFile(const char* pszSrcFile, const char* pszZipFile) {
  if (pszSrcFile == nullptr || pszZipFile == nullptr) {
    return 0;
  }
  const std::unique_ptr<FILE, FileClose> pSource(OpenRegularFile(pszSrcFile));
  if (pSource == nullptr) {
    return 0;
  }
  MakeOwnersFile(pszZipFile);
  const std::unique_ptr<gzFile_s, GzClose> pTarget(gzopen(pszZipFile, "wb"));
  if (pTarget == nullptr) {
    return 0;
  }
  const std::unique_ptr<char[]> pBlock(new (std::nothrow) char[kBlockSize]());
  if (pBlock == nullptr) {
    return 0;
  }
  int bWritten = 0;
  size_t uRead = 0;
  while ((uRead = fread(pBlock.get(), 1, kBlockSize, pSource.get())) > 0) {
    bWritten = 1;
    // The damaged file goes whether its backup is complete or not; there is nobody to tell.
    static_cast<void>(gzwrite(pTarget.get(), pBlock.get(), static_cast<unsigned int>(uRead)));
    memset(pBlock.get(), 0, kBlockSize);
  }
  return bWritten;
}

void CLogCacheDb::BackupDbFile(const CPString& strDbFile) {
  CPString strBase = strDbFile;
  CPString strSuffix;
  constexpr size_t kSuffixLength = sizeof(kDbSuffix) - 1;
  if (strDbFile.Right(kSuffixLength) == CPString(kDbSuffix)) {
    strBase = strDbFile.Left(strDbFile.GetLength() - kSuffixLength);
    strSuffix = kDbSuffix;
  }
  CPString strOlder;
  strOlder.Format("%s%d%s.zip", strBase.c_str(), kOlderBackup, strSuffix.c_str());
  CPString strNewer;
  strNewer.Format("%s1%s.zip", strBase.c_str(), strSuffix.c_str());
  if (access(strNewer.c_str(), F_OK) == 0) {
    static_cast<void>(rename(strNewer.c_str(), strOlder.c_str()));
  }
  CheckpointIntoFile(strDbFile.c_str());
  static_cast<void>(GenZipFile(strDbFile.c_str(), strNewer.c_str()));
  SyncToDisk(strNewer);  // before the only other copy goes
  static_cast<void>(remove(strDbFile.c_str()));
  RemoveSideFiles(strDbFile.c_str());
  // The field shows the path without ".db" and not the backup's name; meant.
  LogPrint(g_hLog, kLogLifecycle, "qmlogcache CLogCacheDb::BackupDbFile strDbFile[%s] strZipName[%s]",
           strDbFile.c_str(), strBase.c_str());
}
