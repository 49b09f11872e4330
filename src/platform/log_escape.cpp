#include "platform/log_escape.h"

#include <cstddef>
#include <cstdint>

namespace {

// How many bytes at the front of svText, which is not empty, stay as they are as one character; 0 when the first byte
// must be escaped.
size_t PlainCharacterLength(std::string_view svText) {
  const auto byteAt = [svText](size_t uAt) -> unsigned {
    return uAt < svText.size() ? static_cast<unsigned char>(svText[uAt]) : 0;
  };
  const auto isTail = [&byteAt](size_t uAt, unsigned uLow = 0x80, unsigned uHigh = 0xBF) {
    return byteAt(uAt) >= uLow && byteAt(uAt) <= uHigh;
  };
  const unsigned uLead = byteAt(0);
  if (uLead < 0x80) {
    return uLead >= 0x20 && uLead != 0x7F && uLead != '\\' ? 1 : 0;
  }
  if (uLead >= 0xC2 && uLead <= 0xDF) {
    return isTail(1, uLead == 0xC2 ? 0xA0 : 0x80) ? 2 : 0;  // not U+0080-U+009F
  }
  if (uLead >= 0xE0 && uLead <= 0xEF) {
    // No overlong forms, no surrogates.
    if (!isTail(1, uLead == 0xE0 ? 0xA0 : 0x80, uLead == 0xED ? 0x9F : 0xBF) || !isTail(2)) {
      return 0;
    }
    const bool bSeparator = uLead == 0xE2 && byteAt(1) == 0x80 && (byteAt(2) == 0xA8 || byteAt(2) == 0xA9);
    return bSeparator ? 0 : 3;
  }
  if (uLead >= 0xF0 && uLead <= 0xF4) {
    return isTail(1, uLead == 0xF0 ? 0x90 : 0x80, uLead == 0xF4 ? 0x8F : 0xBF) && isTail(2) && isTail(3) ? 4 : 0;
  }
  return 0;
}

void AppendEscape(unsigned char cByte, std::string* pstrLine) {
  static constexpr char kHexDigits[] = "0123456789abcdef";
  switch (cByte) {
    case '\n':
      pstrLine->append("\\n");
      break;
    case '\r':
      pstrLine->append("\\r");
      break;
    case '\t':
      pstrLine->append("\\t");
      break;
    case '\\':
      pstrLine->append("\\\\");
      break;
    default:
      pstrLine->append("\\x").append(1, kHexDigits[cByte >> 4]).append(1, kHexDigits[cByte & 0xF]);
      break;
  }
}

// -1 for anything but 0-9 and a-f.
int HexValue(char cDigit) {
  if (cDigit >= '0' && cDigit <= '9') {
    return cDigit - '0';
  }
  return cDigit >= 'a' && cDigit <= 'f' ? cDigit - 'a' + 10 : -1;
}

}  // namespace

void AppendEscapedLogText(std::string_view svText, std::string* pstrLine) {
  size_t uPlainFrom = 0;
  size_t uAt = 0;
  while (uAt < svText.size()) {
    const size_t uLength = PlainCharacterLength(svText.substr(uAt));
    if (uLength != 0) {
      uAt += uLength;
      continue;
    }
    pstrLine->append(svText, uPlainFrom, uAt - uPlainFrom);
    AppendEscape(static_cast<unsigned char>(svText[uAt]), pstrLine);
    uPlainFrom = ++uAt;
  }
  pstrLine->append(svText, uPlainFrom);
}

bool UnescapeLogText(std::string_view svLine, std::string* pstrText) {
  pstrText->clear();
  for (size_t uAt = 0; uAt < svLine.size(); ++uAt) {
    if (svLine[uAt] != '\\') {
      pstrText->push_back(svLine[uAt]);
      continue;
    }
    const char cKind = ++uAt < svLine.size() ? svLine[uAt] : '\0';
    if (cKind == 'n') {
      pstrText->push_back('\n');
    } else if (cKind == 'r') {
      pstrText->push_back('\r');
    } else if (cKind == 't') {
      pstrText->push_back('\t');
    } else if (cKind == '\\') {
      pstrText->push_back('\\');
    } else {
      const int iHigh = cKind == 'x' && uAt + 2 < svLine.size() ? HexValue(svLine[uAt + 1]) : -1;
      const int iLow = iHigh >= 0 ? HexValue(svLine[uAt + 2]) : -1;
      if (iLow < 0) {
        pstrText->clear();
        return false;
      }
      pstrText->push_back(static_cast<char>(iHigh * 16 + iLow));
      uAt += 2;
    }
  }
  return true;
}
