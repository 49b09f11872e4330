#include "message/wire_format.h"

#include <cstring>

namespace {

constexpr uint32_t kOffsetJsonDataType = 0;
constexpr uint32_t kOffsetPriv = 4;
constexpr uint32_t kOffsetDataSaveFlag = 8;
constexpr uint32_t kOffsetProduct = 16;
constexpr uint32_t kOffsetCombo = 80;
constexpr uint32_t kOffsetDataLength = 144;
constexpr uint32_t kNameSize = 64;
constexpr uint32_t kOffsetResult = 4;
constexpr uint32_t kOffsetDataId = 8;

template <typename T>
T ReadNumber(const unsigned char* pData, uint32_t uOffset) {
  T number{};
  std::memcpy(&number, pData + uOffset, sizeof(number));  // x86-64 is little-endian, as the payloads are
  return number;
}

template <typename T>
T ReadIfThere(const unsigned char* pData, uint32_t uLength, uint32_t uOffset) {
  return uLength >= uOffset + sizeof(T) ? ReadNumber<T>(pData, uOffset) : T{};
}

std::string_view ReadName(const unsigned char* pData, uint32_t uLength, uint32_t uOffset) {
  if (uLength < uOffset + kNameSize) {
    return {};
  }
  const char* pName = reinterpret_cast<const char*>(pData) + uOffset;
  return {pName, strnlen(pName, kNameSize)};
}

}  // namespace

ComboHeader DecodeComboHeader(const unsigned char* pData, uint32_t uiDataLength) {
  ComboHeader header;
  header.iJsonDataType = ReadIfThere<int32_t>(pData, uiDataLength, kOffsetJsonDataType);
  header.iPriv = ReadIfThere<int32_t>(pData, uiDataLength, kOffsetPriv);
  header.iDataSaveFlag = ReadIfThere<int32_t>(pData, uiDataLength, kOffsetDataSaveFlag);
  header.svProduct = ReadName(pData, uiDataLength, kOffsetProduct);
  header.svCombo = ReadName(pData, uiDataLength, kOffsetCombo);
  header.uDataLength = ReadIfThere<uint32_t>(pData, uiDataLength, kOffsetDataLength);
  return header;
}

ResultMessage DecodeResultMessage(const unsigned char* pData) {
  ResultMessage message;
  message.dwResult = ReadNumber<uint32_t>(pData, kOffsetResult);
  message.u64DataId = ReadNumber<unsigned long long>(pData, kOffsetDataId);
  return message;
}
