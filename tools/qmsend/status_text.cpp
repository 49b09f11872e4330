#include "tools/qmsend/status_text.h"

#include <cstdio>

#include "client/core/status_words.h"

namespace {

constexpr size_t kExcerptBytes = 48;

}  // namespace

std::string StatusText(uint32_t uStatus) {
  char szHex[16];
  std::snprintf(szHex, sizeof(szHex), "0x%08X", uStatus);
  const char* pszWords = StatusWords(uStatus);
  return pszWords == nullptr ? szHex : std::string(szHex) + " (" + pszWords + ")";
}

std::string Excerpt(std::string_view svBytes, bool bMore) {
  std::string strText = "\"";
  for (const char c : svBytes.substr(0, kExcerptBytes)) {
    if (c == '"' || c == '\\') {
      strText += '\\';
      strText += c;
    } else if (c >= 0x20 && c < 0x7F) {
      strText += c;
    } else {
      char szEscape[8];
      std::snprintf(szEscape, sizeof(szEscape), "\\x%02X", static_cast<unsigned char>(c));
      strText += szEscape;
    }
  }
  strText += bMore || svBytes.size() > kExcerptBytes ? "\"..." : "\"";
  return strText;
}
