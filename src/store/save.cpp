// The save: every pending record to its sender's file, in batches.
#include <map>
#include <new>
#include <vector>

#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "store/log_cache_data.h"

namespace {

// Writes one record without a batch and ends its claim. False when it stays pending.
bool WriteAlone(_LogExecData& data) {
  constexpr int kNoCover = 0;
  int iRet = kStatusNoResource;
  try {
    iRet = data.pLogCacheFile->AddCacheData(data.u64DataId, data.iPriv, data.iMsgType, data.strProduct, data.strCombo,
                                            data.strData, kNoCover);
  } catch (const std::bad_alloc&) {
    // It stays pending.
  }
  if (iRet == kStatusOk) {
    data.iDataSaveStatus = kSaveDone;
  }
  data.marks.Clear(_LogExecData::CMarks::kWriting);
  return iRet == kStatusOk;
}

// One file's batch, and the records that stand in it. They count as written once their write has succeeded, all of them
// or none; until then an intake that meets one sees it claimed and pending. What finds no memory as a batch is written
// record by record.
class CBatch {
 public:
  explicit CBatch(CLogCacheFile& file) : m_file(file) {
    m_vecCollected.reserve(CLogCacheFile::kBatchRows);  // so that a record is never claimed and then forgotten
  }
  CBatch(const CBatch&) = delete;
  CBatch& operator=(const CBatch&) = delete;

  // The record is pending, and the caller has claimed it; the claim ends with the write. Both return how many records
  // were given up and stay pending.
  size_t Add(_LogExecData& data) {
    m_vecCollected.push_back(&data);
    return Run([&] {
      return m_file.BatchAddData(data.u64DataId, data.iPriv, data.iMsgType, data.strProduct, data.strCombo,
                                 data.strData);
    });
  }
  size_t End() {
    return Run([&] { return m_file.BatchEnd(); });
  }

 private:
  template <typename Step>
  size_t Run(const Step& step) {
    int iRet = kStatusInsertThrew;
    try {
      iRet = step();
    } catch (const std::bad_alloc&) {
      // The row, or the file's lock.
    }
    size_t uPending = 0;
    if (iRet == kStatusInsertThrew) {
      m_file.BatchBegin();
      for (_LogExecData* pData : m_vecCollected) {
        uPending += WriteAlone(*pData) ? 0 : 1;
      }
    } else if (m_file.BatchCount() != 0) {
      return 0;  // not written yet
    } else {
      for (_LogExecData* pData : m_vecCollected) {
        if (iRet == kStatusOk) {
          pData->iDataSaveStatus = kSaveDone;
        }
        pData->marks.Clear(_LogExecData::CMarks::kWriting);
      }
      uPending = iRet == kStatusOk ? 0 : m_vecCollected.size();
    }
    m_vecCollected.clear();
    return uPending;
  }

  CLogCacheFile& m_file;
  std::vector<_LogExecData*> m_vecCollected;
};

}  // namespace

int CLogCacheData::SaveCacheToDb() {
  CCriticalSectionGuard guard(m_csExecData);
  std::map<CLogCacheFile*, CBatch> mapBatch;
  size_t uPending = 0;
  for (const auto& [strPluginId, pFile] : m_mapLogCacheFile) {
    pFile->BatchBegin();
  }
  for (const auto& [u64DataId, pExecData] : m_mapLogExecData) {
    // A record whose intake is writing it at this moment is left to that.
    if (pExecData->pLogCacheFile == nullptr || pExecData->iDataSaveStatus != kSavePending ||
        pExecData->marks.Set(_LogExecData::CMarks::kWriting)) {
      continue;
    }
    CBatch* pBatch = nullptr;
    try {
      pBatch = &mapBatch.try_emplace(pExecData->pLogCacheFile, *pExecData->pLogCacheFile).first->second;
    } catch (const std::bad_alloc&) {
      uPending += WriteAlone(*pExecData) ? 0 : 1;
      continue;
    }
    uPending += pBatch->Add(*pExecData);
  }
  for (const auto& [strPluginId, pFile] : m_mapLogCacheFile) {
    const auto itBatch = mapBatch.find(pFile.get());
    if (itBatch != mapBatch.end()) {
      uPending += itBatch->second.End();
    }
  }
  if (uPending != 0) {
    LogPrint(g_hLog, kLogWarning, "*qmlogcache CLogCacheData::SaveCacheToDb Warn records not written[%zu]", uPending);
  }
  return 1;
}
