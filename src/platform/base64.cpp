#include "platform/base64.h"

#include <absl/strings/escaping.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/api.h"

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

char* CopyForFree(const std::string& strText) {
  char* pResult = static_cast<char*>(std::malloc(strText.size() + 1));
  if (pResult != nullptr) {
    std::memcpy(pResult, strText.c_str(), strText.size() + 1);
  }
  return pResult;
}

// The unescape function takes white space, missing padding and stray bits in the last character, so that several texts
// would stand for the same bytes. Only the one text that the encoder writes may pass.
bool IsPaddedCanonically(std::string_view svText) {
  if (svText.size() % 4 != 0) {
    return false;
  }
  size_t uPadding = 0;
  while (uPadding < 2 && uPadding < svText.size() && svText[svText.size() - 1 - uPadding] == '=') {
    ++uPadding;
  }
  svText.remove_suffix(uPadding);
  for (const char cByte : svText) {
    const bool bKnown = (cByte >= 'A' && cByte <= 'Z') || (cByte >= 'a' && cByte <= 'z') ||
                        (cByte >= '0' && cByte <= '9') || cByte == '+' || cByte == '/';
    if (!bKnown) {
      return false;
    }
  }
  if (uPadding == 0) {
    return true;
  }
  const size_t uUnusedBits = uPadding == 1 ? 0x3 : 0xF;
  return (kAlphabet.find(svText.back()) & uUnusedBits) == 0;
}

}  // namespace

extern "C" {

QM_PLATFORM_API char* base64Encode(const char* pData, int iLength, int /*iReserved*/) {
  if (iLength < 0 || (pData == nullptr && iLength > 0)) {
    return nullptr;
  }
  try {
    return CopyForFree(absl::Base64Escape(absl::string_view(pData, static_cast<size_t>(iLength))));
  } catch (...) {
    return nullptr;
  }
}

QM_PLATFORM_API char* base64Decode(const char* pData, int iLength, int /*iReserved*/) {
  if (iLength < 0 || (pData == nullptr && iLength > 0)) {
    return nullptr;
  }
  const std::string_view svText(pData, static_cast<size_t>(iLength));
  if (!IsPaddedCanonically(svText)) {
    return nullptr;
  }
  try {
    std::string strBytes;
    if (!absl::Base64Unescape(absl::string_view(svText.data(), svText.size()), &strBytes)) {
      return nullptr;
    }
    return CopyForFree(strBytes);
  } catch (...) {
    return nullptr;
  }
}

}  // extern "C"
