// The two payloads that have a layout of their own, decoded with bounds checks. Little-endian, as local producers send
// them.
#ifndef QMLOGCACHE_MESSAGE_WIRE_FORMAT_H_
#define QMLOGCACHE_MESSAGE_WIRE_FORMAT_H_

#include <cstdint>
#include <string_view>

// Header of a JSON combo message. Names end at their first zero byte, or fill their 64 bytes.
struct ComboHeader {
  int32_t iJsonDataType = 0;
  int32_t iPriv = 0;
  int32_t iDataSaveFlag = 0;
  std::string_view svProduct;
  std::string_view svCombo;
  uint32_t uDataLength = 0;
};
inline constexpr uint32_t kComboHeaderSize = 148;
// Value of iDataSaveFlag for a record that is not to be saved.
inline constexpr int32_t kComboDoNotSave = 2;

// Fields that the payload is too short to hold stay zero or empty. The views point into the payload.
ComboHeader DecodeComboHeader(const unsigned char* pData, uint32_t uiDataLength);

// A delivery result.
struct ResultMessage {
  uint32_t dwResult = 0;
  unsigned long long u64DataId = 0;
};
inline constexpr uint32_t kResultMessageSize = 32;

// pData: kResultMessageSize bytes.
ResultMessage DecodeResultMessage(const unsigned char* pData);

#endif  // QMLOGCACHE_MESSAGE_WIRE_FORMAT_H_
