#include "host/link/json_text.h"

#include <algorithm>
#include <array>
#include <boost/json/src.hpp>
#include <boost/nowide/utf/utf.hpp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/base64.h"

bool IsUtf8(std::string_view svText) {
  using Traits = boost::nowide::utf::utf_traits<char>;
  auto it = svText.begin();
  while (it != svText.end()) {
    if (static_cast<unsigned char>(*it) < 0x80) {
      ++it;
      continue;
    }
    const auto code = Traits::decode(it, svText.end());
    if (code == boost::nowide::utf::illegal || code == boost::nowide::utf::incomplete) {
      return false;
    }
  }
  return true;
}

void AppendBase64(std::string& strOut, std::string_view svBytes) {
  // Groups of three bytes encode on their own: pieces keep the encoder's int length and its buffer small.
  constexpr size_t kPiece = 3U << 18;
  for (; !svBytes.empty(); svBytes.remove_prefix(std::min(kPiece, svBytes.size()))) {
    const std::unique_ptr<char, decltype(&std::free)> pszText(
        base64Encode(svBytes.data(), static_cast<int>(std::min(kPiece, svBytes.size())), 0), &std::free);
    if (!pszText) {
      throw std::bad_alloc();
    }
    strOut += pszText.get();
  }
}

CJsonText::CJsonText() : m_pSerializer(std::make_unique<boost::json::serializer>()) {}
CJsonText::~CJsonText() = default;

namespace {

// Whether the text stands in a JSON literal as it is: ASCII without control characters, quotes and backslashes. Looks at
// eight bytes at a time.
bool IsPlain(std::string_view svText) {
  constexpr uint64_t kEach = 0x0101010101010101U;
  constexpr uint64_t kHighBits = 0x8080808080808080U;
  const auto fnHasZero = [](uint64_t u64) { return (u64 - kEach) & ~u64; };
  uint64_t u64Special = 0;
  while (!svText.empty()) {
    uint64_t u64 = kEach * 'x';
    const size_t uCount = std::min(svText.size(), sizeof(u64));
    std::memcpy(&u64, svText.data(), uCount);
    svText.remove_prefix(uCount);
    u64Special |= u64 | (u64 - kEach * ' ') | fnHasZero(u64 ^ (kEach * '"')) | fnHasZero(u64 ^ (kEach * '\\'));
  }
  return (u64Special & kHighBits) == 0;
}

}  // namespace

void CJsonText::AppendField(std::string& strOut, std::string_view svName, std::string_view svText) {
  strOut += '"';
  strOut += svName;
  if (IsPlain(svText)) {
    strOut += "\":\"";
    strOut += svText;
    strOut += '"';
    return;
  }
  if (IsUtf8(svText)) {
    strOut += "\":";
    AppendLiteral(strOut, svText);
    return;
  }
  strOut += "_base64\":\"";
  AppendBase64(strOut, svText);
  strOut += '"';
}

void CJsonText::AppendLiteral(std::string& strOut, std::string_view svText) {
  std::array<char, 4096> acPiece;
  m_pSerializer->reset(boost::json::string_view(svText.data(), svText.size()));
  while (!m_pSerializer->done()) {
    const auto svPiece = m_pSerializer->read(acPiece.data(), acPiece.size());
    strOut.append(svPiece.data(), svPiece.size());
  }
}
