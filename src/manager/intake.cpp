// Step 1: a received message becomes a record.
#include <algorithm>
#include <exception>
#include <limits>

#include "manager/log_cache_mgr.h"
#include "manager/tagged_text.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"

namespace {
constexpr uint32_t kLastSequenceId = 0x7FFFFFFE;
constexpr unsigned int kSequenceBits = 32;
constexpr int kPublicPriority = 10;

// Precision with which printf prints a text that no zero byte ends.
int PrintLength(std::string_view svText) {
  return static_cast<int>(std::min<size_t>(svText.size(), std::numeric_limits<int>::max()));
}
}  // namespace

unsigned long long CLogCacheMgr::GetDataId() {
  CCriticalSectionGuard guard(m_csDataId);
  uint32_t uSequenceId = m_uSequenceId + 1;
  if (uSequenceId > kLastSequenceId) {
    uSequenceId = 1;
    m_uStartTime = m_uStartTime + 1;
  }
  m_uSequenceId = uSequenceId;
  return (static_cast<unsigned long long>(m_uStartTime) << kSequenceBits) | uSequenceId;
}

int CLogCacheMgr::AddExecData(long i64MsgType, int iPriv, int iMsgType, int iDataSaveStatus,
                              const CPString& strPluginId, const CPString& strProduct, const CPString& strCombo,
                              std::string_view svData) {
  const unsigned long long u64DataId = GetDataId();
  const int bForceSave = m_iSaveCacheToDb;
  int iRet = kStatusOk;
  try {
    iRet = m_LogCacheData.AddDataAction(
        bForceSave, u64DataId, iPriv, iMsgType, iDataSaveStatus, strPluginId, strProduct, strCombo,
        BuildTaggedText(u64DataId, iPriv, iMsgType, strPluginId.View(), strProduct.View(), strCombo.View(), svData));
  } catch (const std::exception&) {
    iRet = kStatusNoResource;  // no memory for the text
  }
  if (iRet != kStatusOk) {
    m_stat.CountAddFail.Add(1);
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache step1 Error AddDataAction iRet[%x] bForceSave[%d] i64MsgType[%lx] u64DataId[%llx] iPriv[%d] "
             "iMsgType[%d] iDataSaveStatus[%d] strPluginId[%s] strProduct[%s] strCombo[%s] strData[%.*s]",
             static_cast<unsigned int>(iRet), bForceSave, static_cast<unsigned long>(i64MsgType), u64DataId, iPriv,
             iMsgType, iDataSaveStatus, strPluginId.c_str(), strProduct.c_str(), strCombo.c_str(), PrintLength(svData),
             svData.data());
  } else {
    LogPrint(g_hLog, kLogNormal,
             "qmlogcache step1 OK AddDataAction bForceSave[%d] i64MsgType[%lx] u64DataId[%llx] iPriv[%d] iMsgType[%d] "
             "iDataSaveStatus[%d] strPluginId[%s] strProduct[%s] strCombo[%s] strData[%.*s]",
             bForceSave, static_cast<unsigned long>(i64MsgType), u64DataId, iPriv, iMsgType, iDataSaveStatus,
             strPluginId.c_str(), strProduct.c_str(), strCombo.c_str(), PrintLength(svData), svData.data());
  }
  CountIntake(iPriv, iMsgType, !strProduct.IsEmpty() && !strCombo.IsEmpty());
  return iRet;
}

void CLogCacheMgr::CountIntake(int iPriv, int iMsgType, bool bCombo) {
  switch (iPriv) {
    case 0:
    case kPublicPriority:
      m_stat.CountLow.Add(1);
      break;
    case 1:
    case kPublicPriority + 1:
      m_stat.CountNormal.Add(1);
      break;
    case 2:
    case kPublicPriority + 2:
      m_stat.CountHigh.Add(1);
      break;
    case 3:
    case kPublicPriority + 3:
      m_stat.CountReal.Add(1);
      break;
    default:
      break;
  }
  switch (iMsgType) {
    case 1:
      m_stat.CountServer.Add(1);
      break;
    case 2:
      m_stat.CountPlugin.Add(1);
      break;
    case 3:
      m_stat.CountCloudTag.Add(1);
      break;
    default:
      break;
  }
  (bCombo ? m_stat.CountCombo : m_stat.CountGuid).Add(1);
  m_stat.CountAll.Add(1);
}
