#include "tests/fuzz/support/own_base64.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::optional<std::string> ReadBase64(std::string_view svText) {
  if (svText.size() % 4 != 0) {
    return std::nullopt;
  }
  if (svText.ends_with('=')) {
    svText.remove_suffix(svText.ends_with("==") ? 2 : 1);
  }
  std::string strBytes;
  uint32_t uBits = 0;
  unsigned int uCount = 0;
  for (const char c : svText) {
    const auto* pAt = static_cast<const char*>(memchr(kAlphabet, c, sizeof(kAlphabet) - 1));
    if (pAt == nullptr) {
      return std::nullopt;
    }
    uBits = uBits << 6 | static_cast<uint32_t>(pAt - kAlphabet);
    uCount += 6;
    if (uCount >= 8) {
      uCount -= 8;
      strBytes += static_cast<char>(uBits >> uCount);
      uBits &= (1U << uCount) - 1;
    }
  }
  return uBits == 0 ? std::optional(strBytes) : std::nullopt;
}
