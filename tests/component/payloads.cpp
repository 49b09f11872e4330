#include "payloads.h"

#include <cstring>
#include <sstream>

namespace {

template <typename T>
void Put(std::string& strPayload, size_t uOffset, T number) {
  std::memcpy(strPayload.data() + uOffset, &number, sizeof(number));
}

}  // namespace

std::string ComboPayload(const ComboFields& fields) {
  constexpr size_t kHeader = 148;
  std::string strPayload(kHeader, '\0');
  Put(strPayload, 0, fields.iJsonDataType);
  Put(strPayload, 4, fields.iPriv);
  Put(strPayload, 8, fields.iDataSaveFlag);
  Put(strPayload, 12, uint32_t{0xa5a5a5a5});
  strPayload.replace(16, fields.strProduct.size(), fields.strProduct);
  strPayload.replace(80, fields.strCombo.size(), fields.strCombo);
  Put(strPayload, 144, static_cast<uint32_t>(fields.strData.size()));
  return strPayload + fields.strData;
}

std::string ResultPayload(uint64_t u64DataId, uint32_t uResult) {
  constexpr size_t kSize = 32;
  std::string strPayload(kSize, '\x5a');
  Put(strPayload, 4, uResult);
  Put(strPayload, 8, u64DataId);
  return strPayload;
}

std::string ContentOf(std::string_view svText) {
  constexpr std::string_view kOpen = "<end=1><msg=";
  const size_t uAt = svText.find(kOpen);
  if (uAt == std::string_view::npos || !svText.ends_with('>')) {
    return {};
  }
  const size_t uBegin = uAt + kOpen.size();
  return std::string(svText.substr(uBegin, svText.size() - uBegin - 1));
}

std::string ToHex(uint64_t u64Number) {
  std::ostringstream stream;
  stream << std::hex << u64Number;
  return stream.str();
}

std::string ExpectedText(const SentFields& fields) {
  std::string strText = "<version=1><dataid=" + ToHex(fields.u64DataId) + "><priv=" + std::to_string(fields.iPriv) +
                        "><msgtype=" + std::to_string(fields.iMsgType) + "><guid=" + kProducerText + "><product=";
  strText += fields.svProduct;
  strText += "><combo=";
  strText += fields.svCombo;
  strText += "><end=1><msg=";
  strText += fields.svData;
  return strText + ">";
}
