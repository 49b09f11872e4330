#include "platform/file_info.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/api.h"

extern "C" {

QM_PLATFORM_API int QmGetFileAttr(const char* pszPath, unsigned long long* pu64Size, unsigned long long* pu64Time) {
  if (pszPath == nullptr || pu64Size == nullptr || pu64Time == nullptr) {
    return EINVAL;
  }
  struct stat info;
  if (stat(pszPath, &info) != 0) {
    return errno;
  }
  if (!S_ISREG(info.st_mode)) {
    return EINVAL;
  }
  *pu64Size = static_cast<unsigned long long>(info.st_size);
  *pu64Time = info.st_mtime < 0 ? 0 : static_cast<unsigned long long>(info.st_mtime);
  return 0;
}

QM_PLATFORM_API int QmIsFileExisted(const char* pszPath) {
  struct stat info;
  return pszPath != nullptr && stat(pszPath, &info) == 0 ? 1 : 0;
}

QM_PLATFORM_API int QmGetModuleFilePath(char* pszBuffer, unsigned int uSize) {
  if (pszBuffer == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  char szPath[PATH_MAX + 1];
  const ssize_t iLength = readlink("/proc/self/exe", szPath, sizeof szPath);
  if (iLength < 0) {
    return errno;
  }
  if (static_cast<size_t>(iLength) >= sizeof szPath) {
    errno = ENAMETOOLONG;
    return ENAMETOOLONG;
  }
  szPath[iLength] = '\0';
  // When the file was replaced or removed while it runs, the kernel adds " (deleted)". That stands behind the file's
  // name, so the directory is right all the same.
  char* pSlash = strrchr(szPath, '/');
  if (szPath[0] != '/' || pSlash == nullptr) {
    errno = ENOENT;  // the executable lies outside this process's root
    return ENOENT;
  }
  const size_t uLength = pSlash == szPath ? 1 : static_cast<size_t>(pSlash - szPath);
  if (uLength >= uSize) {
    errno = ERANGE;
    return ERANGE;
  }
  memcpy(pszBuffer, szPath, uLength);
  pszBuffer[uLength] = '\0';
  return 0;
}

}  // extern "C"
