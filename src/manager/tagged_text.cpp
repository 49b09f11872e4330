#include "manager/tagged_text.h"

#include <array>
#include <cstring>
#include <string_view>

#include "platform/number_text.h"

namespace {

// A C string ends at the first zero byte, whatever length was announced for it.
std::string_view UpToZero(std::string_view svText) {
  return svText.substr(0, svText.find('\0'));
}

}  // namespace

CPString BuildTaggedText(unsigned long long u64DataId, int iPriv, int iMsgType, std::string_view svPluginId,
                         std::string_view svProduct, std::string_view svCombo, std::string_view svData) {
  constexpr int kDecimal = 10;
  constexpr int kHexadecimal = 16;
  const CNumberText dataId(u64DataId, kHexadecimal);
  const CNumberText priv(iPriv, kDecimal);
  const CNumberText msgType(iMsgType, kDecimal);
  const std::array<std::string_view, 15> pieces = {
      "<version=1><dataid=", dataId.View(),       "><priv=",  priv.View(),
      "><msgtype=",          msgType.View(),      "><guid=",  UpToZero(svPluginId),
      "><product=",          UpToZero(svProduct), "><combo=", UpToZero(svCombo),
      "><end=1><msg=",       UpToZero(svData),    ">"};
  size_t uLength = 0;
  for (const std::string_view svPiece : pieces) {
    uLength += svPiece.size();
  }
  char* pOut = nullptr;
  CPString strText = CPString::Allocate(uLength, &pOut);
  for (const std::string_view svPiece : pieces) {
    std::memcpy(pOut, svPiece.data(), svPiece.size());
    pOut += svPiece.size();
  }
  return strText;
}
