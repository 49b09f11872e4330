// File questions of the base library. All are safe from any thread.
#ifndef QMLOGCACHE_PLATFORM_FILE_INFO_H_
#define QMLOGCACHE_PLATFORM_FILE_INFO_H_

extern "C" {
// Size in bytes and last modification time in seconds since the epoch, of a regular file only. 0 for success; on
// failure (no such file, not a regular file, null argument) the outputs are untouched.
int QmGetFileAttr(const char* pszPath, unsigned long long* pu64Size, unsigned long long* pu64Time);
// 1 when the path exists (whatever it is), else 0.
int QmIsFileExisted(const char* pszPath);
// Writes the directory of the running program's executable, zero-terminated and without a trailing slash. 0 for
// success; non-zero with errno set (ERANGE when uSize bytes are too few).
int QmGetModuleFilePath(char* pszBuffer, unsigned int uSize);
}

#endif  // QMLOGCACHE_PLATFORM_FILE_INFO_H_
