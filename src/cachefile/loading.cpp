// Finding the cache files of a directory and reading them back.
#include <dirent.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "cachefile/file_lock.h"
#include "cachefile/log_cache_file.h"
#include "platform/file_info.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"

namespace {

constexpr char kExtension[] = ".db";

struct DirectoryClose {
  void operator()(DIR* pDirectory) const { closedir(pDirectory); }
};

// The sender's id: the file's name without directory and without what follows its last dot.
CPString PluginIdOf(const CPString& strFileName) {
  std::string_view svName = strFileName.View();
  if (const size_t uSlash = svName.rfind('/'); uSlash != std::string_view::npos) {
    svName.remove_prefix(uSlash + 1);
  }
  return CPString(svName.substr(0, svName.rfind('.')));
}

}  // namespace

bool CLogCacheFile::GetCacheData(std::list<_CacheExecData>& listCacheData) {
  if (m_strLogCachePath.IsEmpty()) {
    LogPrintStr(g_hLog, kLogWarning, "*qmlogcache CLogCacheFile::GetCacheData m_strLogCachePath is empty");
    return false;
  }
  const std::unique_ptr<DIR, DirectoryClose> pDirectory(opendir(m_strLogCachePath.c_str()));
  if (pDirectory == nullptr) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache CLogCacheFile::GetCacheData opendir Error m_strLogCachePath[%s]",
             m_strLogCachePath.c_str());
    return false;
  }
  while (const dirent* pEntry = readdir(pDirectory.get())) {
    if (pEntry->d_name[0] == '\0' || strcmp(pEntry->d_name, ".") == 0 || strcmp(pEntry->d_name, "..") == 0 ||
        pEntry->d_type == DT_LNK || pEntry->d_type == DT_DIR) {
      continue;
    }
    CPString strFull;
    strFull.Format("%s%s", m_strLogCachePath.c_str(), pEntry->d_name);
    if (!strFull.View().ends_with(kExtension) || !IsCacheFileModify(strFull)) {
      continue;
    }
    if (!ParseCacheData(strFull, listCacheData)) {
      break;
    }
  }
  return true;
}

bool CLogCacheFile::IsCacheFileModify(const CPString& strFileName) {
  unsigned long long u64Size = 0;
  unsigned long long u64Time = 0;
  if (QmGetFileAttr(strFileName.c_str(), &u64Size, &u64Time) != 0) {
    return true;
  }
  // Rows that stand in the write-ahead log so far have not changed the file itself.
  unsigned long long u64LogSize = 0;
  unsigned long long u64LogTime = 0;
  CPString strLog;
  strLog.Format("%s-wal", strFileName.c_str());
  if (QmGetFileAttr(strLog.c_str(), &u64LogSize, &u64LogTime) == 0 && u64LogSize != 0) {
    u64Size += u64LogSize;
    u64Time = std::max(u64Time, u64LogTime);
  }
  const _CacheFileData now{u64Size, static_cast<uint32_t>(u64Time)};
  const auto [it, bNew] = m_mapCacheFileData.try_emplace(strFileName, now);
  if (bNew) {
    return true;
  }
  if (it->second.u64FileSize == now.u64FileSize && it->second.dwModifyTime == now.dwModifyTime) {
    return false;
  }
  it->second = now;
  return true;
}

bool CLogCacheFile::ParseCacheData(const CPString& strFileName, std::list<_CacheExecData>& listCacheData) {
  if (listCacheData.size() >= m_dwCountLimit) {
    return false;
  }
  const auto dwWanted = static_cast<uint32_t>(m_dwCountLimit - listCacheData.size());
  std::list<_CacheDbData> rows;
  int iRet = kStatusOk;
  {
    CCriticalSectionGuard guard(m_csLock);
    const CFileLock fileLock(strFileName);
    iRet = m_db.GetAllDbData(strFileName, dwWanted, rows);
    if (iRet == kStatusOk && m_mapCacheFileData.contains(strFileName)) {
      // The first read of a new file moves it to the write-ahead log; that is no news to whoever has just read it.
      static_cast<void>(IsCacheFileModify(strFileName));
    }
  }
  if (iRet != kStatusOk) {
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheFile::ParseCacheData GetAllDbData Error[%x] dwCountLimit[%u] strFileName[%s]",
             static_cast<unsigned int>(iRet), dwWanted, strFileName.c_str());
    return true;
  }
  const CPString strPluginId = PluginIdOf(strFileName);
  for (_CacheDbData& row : rows) {
    listCacheData.push_back({row.u64DataId, row.iPriv, row.iMsgType, strPluginId, std::move(row.strProduct),
                             std::move(row.strCombo), std::move(row.strData), strFileName});
    if (listCacheData.size() >= m_dwCountLimit) {
      return false;
    }
  }
  return true;
}
