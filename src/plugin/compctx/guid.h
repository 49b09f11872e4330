// Component identifiers and their text form, and the two identifiers this component knows by name.
#ifndef QMLOGCACHE_PLUGIN_COMPCTX_GUID_H_
#define QMLOGCACHE_PLUGIN_COMPCTX_GUID_H_

#include <cstdint>

struct GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
};
static_assert(sizeof(GUID) == 16);

// Length of the text form, without the terminating zero.
inline constexpr unsigned int kGuidTextLength = 36;
// A zeroed buffer of this size takes the text with room for a brace on either side.
inline constexpr unsigned int kGuidBufferSize = 39;

// This component.
inline constexpr char kComponentGuidText[] = "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358";
// The agent's server link, to which every record is sent.
inline constexpr char kServerLinkGuidText[] = "C0E4F1B2-3A59-4D86-8B7E-91F2D6A3C4E7";

// Writes the upper-case text form, zero-terminated, into a buffer of at least kGuidBufferSize bytes.
void FormatGuid(const GUID& guid, char* pszBuffer);
// False, and guid zero, when pszText does not begin with a GUID's text form (either case).
[[nodiscard]] bool ParseGuid(const char* pszText, GUID& guid);
// kServerLinkGuidText, parsed once. Never destroyed.
const GUID& ServerLinkGuid();

#endif  // QMLOGCACHE_PLUGIN_COMPCTX_GUID_H_
