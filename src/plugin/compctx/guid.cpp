#include "plugin/compctx/guid.h"

#include <cstdio>
#include <cstring>

void FormatGuid(const GUID& guid, char* pszBuffer) {
  std::snprintf(pszBuffer, kGuidBufferSize, "%s%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X%s", "", guid.Data1,
                guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4],
                guid.Data4[5], guid.Data4[6], guid.Data4[7], "");
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
