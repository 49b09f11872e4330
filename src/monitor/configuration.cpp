// Reading the configuration file and resolving the cache directory.
#include <strings.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "monitor/log_cache_mon.h"
#include "platform/file_info.h"
#include "platform/ini_reader.h"
#include "platform/log_channels.h"

namespace {

constexpr char kSection[] = "logcache";
constexpr char kDefaultCachePath[] = "../data/qmlogcache/";
constexpr unsigned int kModulePathSize = 512;

// Text that is no number stores 0 and a negative count wraps: deliberately neither checked nor clamped.
unsigned long long ParseSize(const char* pszValue) {
  return strtoull(pszValue, nullptr, 0);
}
uint32_t ParseCount(const char* pszValue) {
  constexpr int kDecimal = 10;
  return static_cast<uint32_t>(strtol(pszValue, nullptr, kDecimal));
}

}  // namespace

CLogCacheMon::CLogCacheMon() : m_strCfgLogCachePath(kDefaultCachePath) {
  QmInitializeCriticalSection(&m_csCheck);
}

CLogCacheMon::~CLogCacheMon() {
  QmDeleteCriticalSection(&m_csCheck);
}

int CLogCacheMon::IniParserCallback(void* pUser, const char* pszSection, const char* pszName, const char* pszValue,
                                    int iLine) {
  if (pszSection == nullptr || pszName == nullptr || pszValue == nullptr || pUser == nullptr ||
      strcasecmp(pszSection, kSection) != 0) {
    return iLine;
  }
  auto& mon = *static_cast<CLogCacheMon*>(pUser);
  try {
    mon.TakeSetting(pszName, pszValue);
  } catch (const std::bad_alloc&) {
    mon.m_bSettingLost = true;  // nothing is thrown through the reader
  }
  return iLine;
}

void CLogCacheMon::TakeSetting(const char* pszName, const char* pszValue) {
  const auto isKey = [pszName](const char* pszKey) { return strcasecmp(pszName, pszKey) == 0; };
  if (isKey("logcachepath")) {
    m_strCfgLogCachePath = pszValue;
  } else if (isKey("logcachesize")) {
    m_u64LogCacheSize = ParseSize(pszValue);
  } else if (isKey("logcachetotalsize")) {
    m_u64LogCacheTotalSize = ParseSize(pszValue);
  } else if (isKey("diskfreesize")) {
    m_u64DiskFreeSpace = ParseSize(pszValue);
  } else if (isKey("dataflowflag")) {
    m_dwDataFlowFlag = ParseCount(pszValue);
  } else if (isKey("datacountlimit")) {
    m_dwDataCountLimit = ParseCount(pszValue);
  } else if (isKey("localdatacountlimit")) {
    m_dwLocalDataCountLimit = ParseCount(pszValue);
  } else if (isKey("datacoverflag")) {
    m_dwDataCoverFlag = ParseCount(pszValue);
  }
}

bool CLogCacheMon::InitLogCacheMon(uint32_t& dwDataFlowFlag, uint32_t& dwDataCountLimit,
                                   uint32_t& dwLocalDataCountLimit, uint32_t& dwDataCoverFlag,
                                   CPString& strLogCachePath) {
  std::array<char, kModulePathSize> szModulePath{};
  if (QmGetModuleFilePath(szModulePath.data(), kModulePathSize - 1) != 0) {
    LogPrint(g_hLog, kLogMissing, "**qmlogcache CLogCacheMon::InitLogCacheMon Error GetModuleFilePath Error[%d]",
             errno);
    return false;
  }
  CPString strConfigFile;
  strConfigFile.Format("%s/../etc/qmlogcache/qmlogcache.conf", szModulePath.data());
  // A missing file, or what comes after a syntax error, leaves the defaults.
  m_bSettingLost = false;
  static_cast<void>(wrap_ini_parse(strConfigFile.c_str(), IniParserCallback, this));
  if (m_bSettingLost) {
    throw std::bad_alloc();  // rather that than a default in its place
  }

  dwDataFlowFlag = m_dwDataFlowFlag;
  dwDataCountLimit = m_dwDataCountLimit;
  dwLocalDataCountLimit = m_dwLocalDataCountLimit;
  dwDataCoverFlag = m_dwDataCoverFlag;
  // Joined also when the configured path begins with "/"; meant.
  strLogCachePath.Format("%s/%s", szModulePath.data(), m_strCfgLogCachePath.c_str());
  constexpr mode_t kDirectoryMode = 0755;
  static_cast<void>(mkdir(strLogCachePath.c_str(), kDirectoryMode));  // the last level; opens report what is missing
  m_strLogCachePath = strLogCachePath;
  LogPrint(g_hLog, kLogNormal,
           "qmlogcache CLogCacheMon::InitLogCacheMon dwDataFlowFlag[%u] dwDataCountLimit[%u] dwLocalDataCountLimit[%u] "
           "dwDataCoverFlag[%u] u64LogCacheSize[%llu] u64DiskFreeSpace[%llu] u64LogCacheTotalSize[%llu] "
           "strCfgLogCachePath[%s] strLogCachePath[%s]",
           dwDataFlowFlag, dwDataCountLimit, dwLocalDataCountLimit, dwDataCoverFlag, m_u64LogCacheSize,
           m_u64DiskFreeSpace, m_u64LogCacheTotalSize, m_strCfgLogCachePath.c_str(), strLogCachePath.c_str());
  return true;
}
