#include "host/protocol/sender_guid.h"

#include <algorithm>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid.hpp>
#include <cstdint>
#include <string>

namespace {

// 7B9D4A52-6C0E-4F3B-9A17-D25E80C3F146. Changing it would give every named sender another identity.
constexpr boost::uuids::uuid kSenderNamespace = {
    {0x7B, 0x9D, 0x4A, 0x52, 0x6C, 0x0E, 0x4F, 0x3B, 0x9A, 0x17, 0xD2, 0x5E, 0x80, 0xC3, 0xF1, 0x46}};

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// ParseGuid reads what begins like a GUID; a name that merely begins so must stay a name.
bool HasGuidForm(std::string_view svText) {
  if (svText.size() != kGuidTextLength) {
    return false;
  }
  for (size_t i = 0; i < svText.size(); ++i) {
    const bool bDash = i == 8 || i == 13 || i == 18 || i == 23;
    if (bDash ? svText[i] != '-' : !IsHexDigit(svText[i])) {
      return false;
    }
  }
  return true;
}

GUID FromUuid(const boost::uuids::uuid& uuid) {
  GUID guid{};
  guid.Data1 = static_cast<uint32_t>(uuid.data[0]) << 24 | static_cast<uint32_t>(uuid.data[1]) << 16 |
               static_cast<uint32_t>(uuid.data[2]) << 8 | uuid.data[3];
  guid.Data2 = static_cast<uint16_t>(uuid.data[4] << 8 | uuid.data[5]);
  guid.Data3 = static_cast<uint16_t>(uuid.data[6] << 8 | uuid.data[7]);
  std::copy_n(uuid.data + 8, sizeof(guid.Data4), guid.Data4);
  return guid;
}

}  // namespace

GUID SenderGuid(std::string_view svNameOrGuid) {
  std::string_view svBare = svNameOrGuid;
  if (svBare.size() == kGuidTextLength + 2 && svBare.front() == '{' && svBare.back() == '}') {
    svBare = svBare.substr(1, kGuidTextLength);
  }
  GUID guid{};
  if (HasGuidForm(svBare) && ParseGuid(std::string(svBare).c_str(), guid)) {
    return guid;
  }
  boost::uuids::name_generator_sha1 generator(kSenderNamespace);
  return FromUuid(generator(svNameOrGuid.data(), svNameOrGuid.size()));
}
