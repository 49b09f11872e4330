#include "host/link/json_text.h"

#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <boost/json/src.hpp>
#include <boost/nowide/utf/utf.hpp>
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

constexpr size_t kBlock = sizeof(__m128i);

// Marks the bytes that cannot stand in a JSON literal as they are. Bytes above ASCII are negative here, so that one
// comparison finds them with the control characters.
__m128i MarkSpecial(__m128i bytes) {
  const __m128i quotes = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'));
  const __m128i backslashes = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'));
  return _mm_or_si128(_mm_cmplt_epi8(bytes, _mm_set1_epi8(' ')), _mm_or_si128(quotes, backslashes));
}

__m128i Load(const char* pBytes) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBytes));
}

}  // namespace

bool IsPlainJson(std::string_view svText) {
  __m128i marks = _mm_setzero_si128();
  while (svText.size() >= kBlock) {
    marks = _mm_or_si128(marks, MarkSpecial(Load(svText.data())));
    svText.remove_prefix(kBlock);
  }
  if (!svText.empty()) {
    std::array<char, kBlock> acRest;
    acRest.fill('x');
    std::memcpy(acRest.data(), svText.data(), svText.size());
    marks = _mm_or_si128(marks, MarkSpecial(Load(acRest.data())));
  }
  return _mm_movemask_epi8(marks) == 0;
}

void CJsonText::AppendField(std::string& strOut, std::string_view svName, std::string_view svText) {
  strOut += '"';
  strOut += svName;
  if (IsPlainJson(svText)) {
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
