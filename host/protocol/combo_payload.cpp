#include "host/protocol/combo_payload.h"

#include <algorithm>
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "integers are copied as they stand in memory");

namespace {

constexpr size_t kProductOffset = 16;
constexpr size_t kComboOffset = 80;
constexpr size_t kLengthOffset = 144;

bool PutName(ComboHeader& header, size_t uOffset, std::string_view svName, const char* pszWhat, std::string& strError) {
  if (svName.size() > kComboMaxNameLength) {
    strError = std::string("the ") + pszWhat + " name has " + std::to_string(svName.size()) + " bytes, at most " +
               std::to_string(kComboMaxNameLength) + " fit";
    return false;
  }
  if (svName.find('\0') != std::string_view::npos) {
    strError = std::string("the ") + pszWhat + " name holds a zero byte";
    return false;
  }
  std::copy(svName.begin(), svName.end(), header.begin() + static_cast<std::ptrdiff_t>(uOffset));
  return true;
}

}  // namespace

bool MakeComboHeader(const ComboFields& fields, ComboHeader& header, std::string& strError) {
  header.fill(0);
  std::memcpy(header.data(), &fields.iJsonDataType, sizeof(fields.iJsonDataType));
  std::memcpy(header.data() + 4, &fields.iPriv, sizeof(fields.iPriv));
  std::memcpy(header.data() + 8, &fields.iDataSaveFlag, sizeof(fields.iDataSaveFlag));
  return PutName(header, kProductOffset, fields.svProduct, "product", strError) &&
         PutName(header, kComboOffset, fields.svCombo, "combo", strError);
}

void AppendComboPayload(std::string& strOut, const ComboHeader& header, std::string_view svData) {
  const auto uLength = static_cast<uint32_t>(svData.size());
  char aLength[sizeof(uLength)];
  std::memcpy(aLength, &uLength, sizeof(uLength));
  strOut.append(header.data(), kLengthOffset);
  strOut.append(aLength, sizeof(aLength));
  strOut.append(svData);
}
