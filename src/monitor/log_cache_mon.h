// The component's configuration, and the limits that bound the cache on disk.
//
// Configuration is read once at start and not clamped: what the file says is taken as it stands. The space checks
// answer, they never act; whether a record is then skipped or overwrites the oldest one is the store's decision. Every
// failure to measure counts as "within limits": the checks err towards caching.
//
// Threads: InitLogCacheMon runs before any other thread exists; the checks may be called from several threads at once.
// Lock: m_csCheck guards the state of the throttled check. It is a leaf: nothing else is locked while it is held.
#ifndef QMLOGCACHE_MONITOR_LOG_CACHE_MON_H_
#define QMLOGCACHE_MONITOR_LOG_CACHE_MON_H_

#include <cstdint>

#include "platform/cpstring.h"
#include "platform/critical_section.h"

class CLogCacheMon {
 public:
  CLogCacheMon();
  ~CLogCacheMon();
  CLogCacheMon(const CLogCacheMon&) = delete;
  CLogCacheMon& operator=(const CLogCacheMon&) = delete;

  // --- Configuration: configuration.cpp ---
  // Reads the configuration file beside the running program, resolves and makes the cache directory. False, with
  // nothing written, when the program's own directory is unknown; a missing or faulty file leaves the defaults. Throws
  // std::bad_alloc.
  [[nodiscard]] bool InitLogCacheMon(uint32_t& dwDataFlowFlag, uint32_t& dwDataCountLimit,
                                     uint32_t& dwLocalDataCountLimit, uint32_t& dwDataCoverFlag,
                                     CPString& strLogCachePath);
  // Handler of the INI reader; pUser is the CLogCacheMon. Returns iLine, so that no line stops the reading.
  static int IniParserCallback(void* pUser, const char* pszSection, const char* pszName, const char* pszValue,
                               int iLine);

  // --- Space checks: space_checks.cpp. Sizes in bytes. ---
  // kStatusNoDiskSpace when the file system's free space is not above the limit.
  [[nodiscard]] static int CheckDiskFreeSpaceValid(const CPString& strPath, unsigned long long u64Limit,
                                                   unsigned long long& u64Real);
  // kStatusFileFull when the file, its write-ahead log included, has reached the limit.
  [[nodiscard]] static int CheckLogCacheFileSizeValid(const CPString& strFile, unsigned long long u64Limit,
                                                      unsigned long long& u64Real);
  // The same against the configured limit; kStatusNoObject without a name.
  [[nodiscard]] int CheckFileSize(const CPString& strFile) const;
  // Adds the sizes of the files under szPath, at any depth, to u64Total. szPath: a writable buffer of kPathBufferSize
  // bytes with a directory path ending in "/"; unchanged at return. Symbolic links are neither followed nor counted.
  static void WalkLogCacheFiles(char* szPath, unsigned long long& u64Total);
  // kStatusDirectoryFull when the files under the directory add up to the limit.
  [[nodiscard]] static int CheckLogCacheDirSpaceValid(const CPString& strPath, unsigned long long u64Limit,
                                                      unsigned long long& u64Real);
  // Whether the cache as a whole may grow: a full check at most once a minute, its answer repeated in between.
  [[nodiscard]] int CheckCacheSize();

  static constexpr unsigned int kPathBufferSize = 4096;

 private:
  friend class CLogCacheMonPeer;  // tests

  void TakeSetting(const char* pszName, const char* pszValue);
  int StopCaching(int iRet, const char* pszFormat, unsigned long long u64Real, unsigned long long u64Limit)
      QM_REQUIRES(m_csCheck);

  unsigned long long m_u64DiskFreeSpace = 524288000;
  unsigned long long m_u64LogCacheTotalSize = 2147483648;
  unsigned long long m_u64LogCacheSize = 524288000;
  uint32_t m_dwDataFlowFlag = 0;
  uint32_t m_dwDataCountLimit = 500000;
  uint32_t m_dwLocalDataCountLimit = 100000;
  uint32_t m_dwDataCoverFlag = 0;
  bool m_bSettingLost = false;    // for want of memory
  CPString m_strCfgLogCachePath;  // as configured, relative to the program's directory
  CPString m_strLogCachePath;     // resolved
  QmCriticalSection m_csCheck;
  unsigned long long m_64LogCacheDiscardedRangeCount QM_GUARDED_BY(m_csCheck) = 0;  // refused since caching stopped
  uint32_t m_dwLastCheckTime QM_GUARDED_BY(m_csCheck) = 0;                          // of the last full check
  int m_iCacheSizeRet QM_GUARDED_BY(m_csCheck) = 0;                                 // its result; non-zero: stopped
};

#endif  // QMLOGCACHE_MONITOR_LOG_CACHE_MON_H_
