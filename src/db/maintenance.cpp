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
// False when it cannot.
bool MakeOwnersFile(const char* pszPath) {
  constexpr mode_t kOwnerOnly = 0600;
  unlink(pszPath);
  const int iFile = open(pszPath, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOwnerOnly);
  if (iFile >= 0) {
    close(iFile);
  }
  return iFile >= 0;
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

// For reading. -1 for whatever is no regular file: a link is not followed, a FIFO not waited for.
int OpenRegularFile(const char* pszPath) {
  const int iFile = open(pszPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  struct stat info {};
  if (iFile >= 0 && (fstat(iFile, &info) != 0 || !S_ISREG(info.st_mode))) {
    close(iFile);
    return -1;
  }
  return iFile;
}

struct GzClose {
  void operator()(gzFile_s* pFile) const { gzclose(pFile); }
};
using GzFile = std::unique_ptr<gzFile_s, GzClose>;
struct FileClose {
  void operator()(FILE* pFile) const { fclose(pFile); }
};
using RegularFile = std::unique_ptr<FILE, FileClose>;

RegularFile ReadRegularFile(const char* pszPath) {
  const int iFile = OpenRegularFile(pszPath);
  RegularFile pFile(iFile < 0 ? nullptr : fdopen(iFile, "rb"));
  if (pFile == nullptr && iFile >= 0) {
    close(iFile);
  }
  return pFile;
}

GzFile ReadBackup(const char* pszPath) {
  const int iFile = OpenRegularFile(pszPath);
  GzFile pFile(iFile < 0 ? nullptr : gzdopen(iFile, "rb"));
  if (pFile == nullptr && iFile >= 0) {
    close(iFile);
  }
  return pFile;
}

std::unique_ptr<char[]> MakeBlock() {
  return std::unique_ptr<char[]>(new (std::nothrow) char[kBlockSize]());
}

// What a backup holds of the file that is to be backed up.
enum class Held {
  Another,    // another file
  Beginning,  // its beginning and nothing else: left by a process that ended while it wrote the backup
  Whole,      // all of it: left by a process that ended before it had removed the file
};

Held WhatIsHeld(const char* pszBackup, const char* pszFile) {
  const RegularFile pFile = ReadRegularFile(pszFile);
  const GzFile pBackup = ReadBackup(pszBackup);
  const std::unique_ptr<char[]> pHeld = MakeBlock();
  const std::unique_ptr<char[]> pWanted = MakeBlock();
  if (pFile == nullptr || pBackup == nullptr || pHeld == nullptr || pWanted == nullptr) {
    return Held::Another;
  }
  int iRead = 0;
  while ((iRead = gzread(pBackup.get(), pHeld.get(), static_cast<unsigned int>(kBlockSize))) > 0) {
    const auto uRead = static_cast<size_t>(iRead);
    if (fread(pWanted.get(), 1, uRead, pFile.get()) != uRead || memcmp(pHeld.get(), pWanted.get(), uRead) != 0) {
      return Held::Another;
    }
  }
  int iError = Z_OK;
  static_cast<void>(gzerror(pBackup.get(), &iError));
  if (iError == Z_BUF_ERROR) {
    return Held::Beginning;  // it ends too early
  }
  if (iError != Z_OK) {
    return Held::Another;
  }
  return fgetc(pFile.get()) == EOF && ferror(pFile.get()) == 0 ? Held::Whole : Held::Beginning;
}

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
  const RegularFile pSource = ReadRegularFile(pszSrcFile);
  if (pSource == nullptr) {
    return 0;
  }
  const GzFile pTarget(MakeOwnersFile(pszZipFile) ? gzopen(pszZipFile, "wb") : nullptr);
  if (pTarget == nullptr) {
    return 0;
  }
  const std::unique_ptr<char[]> pBlock = MakeBlock();
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
  CheckpointIntoFile(strDbFile.c_str());
  // A backup of this very file, left by a process that was killed, must not cost an earlier file its last backup.
  const bool bOlderGoes = access(strOlder.c_str(), F_OK) == 0;
  const Held held = bOlderGoes ? WhatIsHeld(strNewer.c_str(), strDbFile.c_str()) : Held::Another;
  if (held == Held::Another && access(strNewer.c_str(), F_OK) == 0) {
    static_cast<void>(rename(strNewer.c_str(), strOlder.c_str()));
  }
  if (held != Held::Whole) {
    static_cast<void>(GenZipFile(strDbFile.c_str(), strNewer.c_str()));
  }
  SyncToDisk(strNewer);  // before the only other copy goes
  static_cast<void>(remove(strDbFile.c_str()));
  RemoveSideFiles(strDbFile.c_str());
  // The field shows the path without ".db" and not the backup's name; meant.
  LogPrint(g_hLog, kLogLifecycle, "qmlogcache CLogCacheDb::BackupDbFile strDbFile[%s] strZipName[%s]",
           strDbFile.c_str(), strBase.c_str());
}
