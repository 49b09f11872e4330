#include "host/protocol/record_priority.h"

#include <boost/endian/conversion.hpp>

#include "host/protocol/combo_payload.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr size_t kPrivilegeOffset = 4;
constexpr uint32_t kPrivilegeEnd = 14;  // the first number that no base has a type for

}  // namespace

size_t PriorityOfPrivilege(int32_t iPriv) {
  const int32_t iUnits = iPriv >= 10 ? iPriv - 10 : iPriv;
  return iUnits >= 0 && iUnits <= 3 ? static_cast<size_t>(iUnits) : kPriorityOther;
}

size_t PriorityOfMessage(uint32_t uMsgType, const uint8_t* pData, uint32_t uLength) {
  if (uMsgType == LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA || uMsgType == LOGCACHE_MSG_ASYNC_SEND_JSON_COMBO_DATA) {
    return pData != nullptr && uLength >= kComboHeaderSize
               ? PriorityOfPrivilege(boost::endian::load_little_s32(pData + kPrivilegeOffset))
               : kPriorityOther;
  }
  for (const uint32_t uBase : {LOGCACHE_MSG_SYNC_SERVER_BASE, LOGCACHE_MSG_SYNC_PLUGIN_BASE}) {
    if (uMsgType >= uBase && uMsgType < uBase + kPrivilegeEnd) {
      return PriorityOfPrivilege(static_cast<int32_t>(uMsgType - uBase));
    }
  }
  return kNotARecord;
}
