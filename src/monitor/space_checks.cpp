// Free space, directory total and file size against their limits.
#include <dirent.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "monitor/log_cache_mon.h"
#include "platform/file_info.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"

namespace {
constexpr uint32_t kCheckSeconds = 60;
}  // namespace

int CLogCacheMon::CheckDiskFreeSpaceValid(const CPString& strPath, unsigned long long u64Limit,
                                          unsigned long long& u64Real) {
  struct statvfs stat {};
  if (statvfs(strPath.c_str(), &stat) != 0) {
    return kStatusOk;
  }
  // All free blocks, those reserved for the superuser too, in units of the fragment size; both are meant.
  u64Real = static_cast<unsigned long long>(stat.f_bfree) * stat.f_frsize;
  return u64Real > u64Limit ? kStatusOk : kStatusNoDiskSpace;
}

int CLogCacheMon::CheckLogCacheFileSizeValid(const CPString& strFile, unsigned long long u64Limit,
                                             unsigned long long& u64Real) {
  u64Real = 0;
  if (strFile.IsEmpty()) {
    return kStatusOk;
  }
  unsigned long long u64Time = 0;
  if (QmGetFileAttr(strFile.c_str(), &u64Real, &u64Time) != 0) {
    return kStatusOk;
  }
  // What was written last may stand in the file's write-ahead log so far.
  CPString strLog;
  strLog.Format("%s-wal", strFile.c_str());
  unsigned long long u64LogSize = 0;
  if (QmGetFileAttr(strLog.c_str(), &u64LogSize, &u64Time) == 0) {
    u64Real += u64LogSize;
  }
  return u64Real < u64Limit ? kStatusOk : kStatusFileFull;
}

int CLogCacheMon::CheckFileSize(const CPString& strFile) const {
  if (strFile.IsEmpty()) {
    return kStatusNoObject;
  }
  unsigned long long u64Real = 0;
  return CheckLogCacheFileSizeValid(strFile, m_u64LogCacheSize, u64Real);
}

void CLogCacheMon::WalkLogCacheFiles(char* szPath, unsigned long long& u64Total) {
  if (szPath == nullptr) {
    return;
  }
  DIR* pDirectory = opendir(szPath);
  if (pDirectory == nullptr) {
    return;
  }
  const size_t uLength = strlen(szPath);
  while (const dirent* pEntry = readdir(pDirectory)) {
    const size_t uName = strlen(pEntry->d_name);
    if (uName == 0 || strcmp(pEntry->d_name, ".") == 0 || strcmp(pEntry->d_name, "..") == 0 ||
        pEntry->d_type == DT_LNK) {
      continue;
    }
    const bool bDirectory = pEntry->d_type == DT_DIR;
    if (uLength + uName + (bDirectory ? 1 : 0) + 1 >= kPathBufferSize) {
      continue;
    }
    memcpy(szPath + uLength, pEntry->d_name, uName + 1);
    if (bDirectory) {
      szPath[uLength + uName] = '/';
      szPath[uLength + uName + 1] = '\0';
      WalkLogCacheFiles(szPath, u64Total);
    } else {
      unsigned long long u64Size = 0;
      unsigned long long u64Time = 0;
      if (QmGetFileAttr(szPath, &u64Size, &u64Time) == 0) {
        u64Total += u64Size;
      }
    }
    memset(szPath + uLength, 0, kPathBufferSize - uLength);
  }
  closedir(pDirectory);
}

int CLogCacheMon::CheckLogCacheDirSpaceValid(const CPString& strPath, unsigned long long u64Limit,
                                             unsigned long long& u64Real) {
  u64Real = 0;
  if (strPath.IsEmpty()) {
    return kStatusOk;
  }
  const std::unique_ptr<char[]> pPath(new (std::nothrow) char[kPathBufferSize]());
  if (pPath == nullptr) {
    return kStatusOk;
  }
  memcpy(pPath.get(), strPath.c_str(), std::min<size_t>(strPath.GetLength(), kPathBufferSize - 1));
  WalkLogCacheFiles(pPath.get(), u64Real);
  return u64Real < u64Limit ? kStatusOk : kStatusDirectoryFull;
}

int CLogCacheMon::CheckCacheSize() {
  CCriticalSectionGuard guard(m_csCheck);
  const auto dwNow = static_cast<uint32_t>(time(nullptr));
  // Within the same second, or with the clock set back, the full check runs again; meant.
  if (dwNow > m_dwLastCheckTime && dwNow < m_dwLastCheckTime + kCheckSeconds) {
    if (m_iCacheSizeRet != kStatusOk) {
      ++m_64LogCacheDiscardedRangeCount;
    }
    return m_iCacheSizeRet;
  }
  m_dwLastCheckTime = dwNow;

  unsigned long long u64RealFree = 0;
  int iRet = CheckDiskFreeSpaceValid(m_strLogCachePath, m_u64DiskFreeSpace, u64RealFree);
  if (iRet != kStatusOk) {
    return StopCaching(iRet,
                       "*qmlogcache CLogCacheMon::CheckCacheSize CheckDiskFreeSpaceValid no space stop cache iRet[%x] "
                       "u64RealDiskFreeSpace[%llu] u64DiskFreeSpace[%llu]",
                       u64RealFree, m_u64DiskFreeSpace);
  }
  unsigned long long u64RealTotal = 0;
  iRet = CheckLogCacheDirSpaceValid(m_strLogCachePath, m_u64LogCacheTotalSize, u64RealTotal);
  if (iRet != kStatusOk) {
    return StopCaching(iRet,
                       "*qmlogcache CLogCacheMon::CheckCacheSize CheckLogCacheDirSpaceValid no space stop cache "
                       "iRet[%x] u64RealLogCacheTotalSize[%llu] u64LogCacheTotalSize[%llu]",
                       u64RealTotal, m_u64LogCacheTotalSize);
  }
  if (m_iCacheSizeRet != kStatusOk) {
    m_iCacheSizeRet = kStatusOk;
    LogPrint(g_hLog, kLogNormal,
             "qmlogcache CLogCacheMon::CheckCacheSize resume cache m_64LogCacheDiscardedRangeCount[%llu] "
             "u64DiskFreeSpace[%llu] u64RealDiskFreeSpace[%llu] u64LogCacheTotalSize[%llu] "
             "u64RealLogCacheTotalSize[%llu]",
             m_64LogCacheDiscardedRangeCount, m_u64DiskFreeSpace, u64RealFree, m_u64LogCacheTotalSize, u64RealTotal);
    m_64LogCacheDiscardedRangeCount = 0;
  }
  return kStatusOk;
}

int CLogCacheMon::StopCaching(int iRet, const char* pszFormat, unsigned long long u64Real,
                              unsigned long long u64Limit) {
  if (iRet != m_iCacheSizeRet) {
    m_iCacheSizeRet = iRet;
    LogPrint(g_hLog, kLogWarning, pszFormat, static_cast<unsigned int>(iRet), u64Real, u64Limit);
  }
  ++m_64LogCacheDiscardedRangeCount;
  return iRet;
}
