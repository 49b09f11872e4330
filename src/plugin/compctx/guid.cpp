#include "plugin/compctx/guid.h"

#include <cstdio>

namespace {

// Writes the lowest iDigits hexadecimal digits of a number; gives the place after them.
char* WriteHex(char* pszOut, uint32_t u32Number, int iDigits) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  constexpr unsigned int kBitsADigit = 4;
  for (int i = iDigits - 1; i >= 0; --i) {
    pszOut[i] = kDigits[u32Number & 0xFU];
    u32Number >>= kBitsADigit;
  }
  return pszOut + iDigits;
}

}  // namespace

// By hand, since it is made for every run of one sender's messages: printf takes twenty times as long.
void FormatGuid(const GUID& guid, char* pszBuffer) {
  constexpr int kByteDigits = 2;
  constexpr int kWordDigits = 4;
  constexpr int kLongDigits = 8;
  constexpr int kBytesBeforeLastDash = 2;
  char* pszOut = WriteHex(pszBuffer, guid.Data1, kLongDigits);
  *pszOut++ = '-';
  pszOut = WriteHex(pszOut, guid.Data2, kWordDigits);
  *pszOut++ = '-';
  pszOut = WriteHex(pszOut, guid.Data3, kWordDigits);
  *pszOut++ = '-';
  for (int i = 0; i < static_cast<int>(sizeof(guid.Data4)); ++i) {
    if (i == kBytesBeforeLastDash) {
      *pszOut++ = '-';
    }
    pszOut = WriteHex(pszOut, guid.Data4[i], kByteDigits);
  }
  *pszOut = '\0';
}

bool ParseGuid(const char* pszText, GUID& guid) {
  constexpr int kFields = 11;
  GUID parsed{};
  // Every field is bounded by its width, so no conversion can overflow.
  // NOLINTBEGIN(cert-err34-c)
  const int iFields =
      std::sscanf(pszText, "%08x-%04hx-%04hx-%02hhx%02hhx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx", &parsed.Data1,
                  &parsed.Data2, &parsed.Data3, &parsed.Data4[0], &parsed.Data4[1], &parsed.Data4[2], &parsed.Data4[3],
                  &parsed.Data4[4], &parsed.Data4[5], &parsed.Data4[6], &parsed.Data4[7]);
  // NOLINTEND(cert-err34-c)
  guid = iFields == kFields ? parsed : GUID{};
  return iFields == kFields;
}

const GUID& ServerLinkGuid() {
  static const GUID s_guid = [] {
    GUID guid{};
    static_cast<void>(ParseGuid(kServerLinkGuidText, guid));  // a constant of the right form
    return guid;
  }();
  return s_guid;
}
