// The store's side of persistence. No cache file is attached yet: records live in memory, under the write policy that
// never writes, and a record that asks for its cache file finds none.
#include "platform/status_codes.h"
#include "store/log_cache_data.h"

bool CLogCacheData::InitCacheData() {
  m_dwDataFlowFlag = kFlowMemoryOnly;
  return true;
}

int CLogCacheData::SaveCacheToDb() {
  return 1;
}

int CLogCacheData::LoadExecData() {
  return 1;
}

int CLogCacheData::AddCacheData(_LogExecData* pExecData) {
  if (pExecData == nullptr) {
    return kStatusNoObject;
  }
  if (pExecData->iDataSaveStatus != kSavePending) {
    return kStatusOk;
  }
  return kStatusNoObject;
}
