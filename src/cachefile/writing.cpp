// Single writes, batches, deletes, and the ladder of repairs.
#include "cachefile/file_lock.h"
#include "cachefile/log_cache_file.h"
#include "platform/status_codes.h"

namespace {
constexpr size_t kBatchBytes = size_t{64} << 20;  // far below SQLite's longest statement
constexpr uint32_t kDeletesPerCompaction = 100;
}  // namespace

CLogCacheFile::CLogCacheFile() {
  QmInitializeCriticalSection(&m_csLock);
}

CLogCacheFile::~CLogCacheFile() {
  QmDeleteCriticalSection(&m_csLock);
}

bool CLogCacheFile::InitFile(uint32_t dwCountLimit, const CPString& strLogCachePath, const CPString& strFileName) {
  m_dwCountLimit = dwCountLimit;
  m_strLogCachePath = strLogCachePath;
  m_strLogCacheFile.Format("%s%s.db", strLogCachePath.c_str(), strFileName.c_str());
  m_strFileName = strFileName;
  return true;
}

CPString CLogCacheFile::GetLogCacheFile() const {
  return m_strLogCacheFile;
}

int CLogCacheFile::WriteWithRepair(const std::function<int(int iDataType)>& write) {
  if (m_strLogCachePath.IsEmpty()) {
    return kStatusNoObject;
  }
  const int iFirst = write(kDataPlain);
  if (iFirst == kStatusOk) {
    return kStatusOk;
  }
  const int iRet = write(kDataBase64);
  if (iRet == kStatusOk) {
    return kStatusOk;
  }
  switch (m_db.ExamineDbFile(m_strLogCacheFile)) {
    case DbCheck::Sound:
      // Refused twice by a sound file: dropped; meant. Want of memory is no refusal.
      return iFirst == kStatusInsertThrew || iRet == kStatusInsertThrew ? kStatusInsertThrew : kStatusOk;
    case DbCheck::Unknown:
      return iRet;
    case DbCheck::Damaged:
      break;
  }
  m_db.BackupDbFile(m_strLogCacheFile);
  return write(kDataBase64);
}

int CLogCacheFile::AddCacheData(unsigned long long u64DataId, int iPriv, int iMsgType, const CPString& strProduct,
                                const CPString& strCombo, const CPString& strData, int iCover) {
  CCriticalSectionGuard guard(m_csLock);
  const CFileLock fileLock(m_strLogCacheFile);
  return WriteWithRepair([&](int iDataType) {
    return m_db.AddDbData(m_strLogCacheFile, u64DataId, iPriv, iMsgType, iDataType, strProduct, strCombo, strData,
                          iCover);
  });
}

int CLogCacheFile::DeleteCacheData(unsigned long long u64DataId) {
  if (m_strLogCachePath.IsEmpty()) {
    return kStatusNoObject;
  }
  CCriticalSectionGuard guard(m_csLock);
  const CFileLock fileLock(m_strLogCacheFile);
  const int iRet = m_db.DeleteDbData(u64DataId, m_strLogCacheFile);
  if (++m_dwDeleteCount >= kDeletesPerCompaction) {
    m_db.ReleaseDbFileSpace(m_strLogCacheFile);
    m_dwDeleteCount = 0;
  }
  return iRet;
}

void CLogCacheFile::BatchBegin() {
  m_listBatchData.clear();
  m_uBatchBytes = 0;
}

int CLogCacheFile::BatchAddData(unsigned long long u64DataId, int iPriv, int iMsgType, const CPString& strProduct,
                                const CPString& strCombo, const CPString& strData) {
  m_listBatchData.push_back({u64DataId, iPriv, iMsgType, kDataPlain, strProduct, strCombo, strData});
  m_uBatchBytes += strData.GetLength();
  return m_listBatchData.size() >= kBatchRows || m_uBatchBytes >= kBatchBytes ? BatchExecute() : kStatusOk;
}

int CLogCacheFile::BatchExecute() {
  if (m_listBatchData.empty()) {
    return kStatusOk;
  }
  CCriticalSectionGuard guard(m_csLock);
  const CFileLock fileLock(m_strLogCacheFile);
  const int iRet = WriteWithRepair([this](int iDataType) {
    for (_CacheDbData& data : m_listBatchData) {
      data.iDataType = iDataType;
    }
    return m_db.AddDbData(m_strLogCacheFile, m_listBatchData);
  });
  m_listBatchData.clear();
  m_uBatchBytes = 0;
  return iRet;
}

int CLogCacheFile::BatchEnd() {
  return BatchExecute();
}
