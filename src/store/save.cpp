// The save: every pending record to its sender's file, in batches.
#include <map>
#include <new>
#include <vector>

#include "platform/status_codes.h"
#include "store/log_cache_data.h"

namespace {

// One file's batch, and the records that stand in it. They count as written once their write has succeeded, all of them
// or none; until then an intake that meets one sees it claimed and pending.
class CBatch {
 public:
  explicit CBatch(CLogCacheFile& file) : m_file(file) {
    m_vecCollected.reserve(CLogCacheFile::kBatchRows);
    m_file.BatchBegin();
  }
  CBatch(const CBatch&) = delete;
  CBatch& operator=(const CBatch&) = delete;

  // The record is pending, and the caller has claimed it; the claim ends with the write.
  void Add(_LogExecData& data) {
    m_vecCollected.push_back(&data);
    Run([&] {
      return m_file.BatchAddData(data.u64DataId, data.iPriv, data.iMsgType, data.strProduct, data.strCombo,
                                 data.strData);
    });
  }
  void End() {
    Run([&] { return m_file.BatchEnd(); });
  }

 private:
  template <typename Step>
  void Run(const Step& step) {
    int iRet = kStatusNoResource;
    try {
      iRet = step();
    } catch (const std::bad_alloc&) {
      m_file.BatchBegin();  // forgets the rows that found no memory
    }
    if (m_file.BatchCount() != 0) {
      return;  // not written yet
    }
    for (_LogExecData* pData : m_vecCollected) {
      if (iRet == kStatusOk) {
        pData->iDataSaveStatus = kSaveDone;
      }
      pData->bWriting.store(false);
    }
    m_vecCollected.clear();
  }

  CLogCacheFile& m_file;
  std::vector<_LogExecData*> m_vecCollected;
};

}  // namespace

int CLogCacheData::SaveCacheToDb() {
  CCriticalSectionGuard guard(m_csExecData);
  std::map<CLogCacheFile*, CBatch> mapBatch;
  try {
    for (const auto& [strPluginId, pFile] : m_mapLogCacheFile) {
      mapBatch.try_emplace(pFile.get(), *pFile);
    }
  } catch (const std::bad_alloc&) {
    return 1;  // nothing was collected; the records stay pending
  }
  for (const auto& [u64DataId, pExecData] : m_mapLogExecData) {
    const auto itBatch = mapBatch.find(pExecData->pLogCacheFile);
    // A record whose intake is writing it at this moment is left to that.
    if (itBatch == mapBatch.end() || pExecData->iDataSaveStatus != kSavePending || pExecData->bWriting.exchange(true)) {
      continue;
    }
    itBatch->second.Add(*pExecData);
  }
  for (const auto& [strPluginId, pFile] : m_mapLogCacheFile) {
    mapBatch.at(pFile.get()).End();
  }
  return 1;
}
