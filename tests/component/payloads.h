// What producers and the destination put on the wire, and what the component must send for it.
#ifndef QMLOGCACHE_TESTS_COMPONENT_PAYLOADS_H_
#define QMLOGCACHE_TESTS_COMPONENT_PAYLOADS_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "plugin/compctx/guid.h"

// A producer, and its id as the component must write it.
inline constexpr GUID kProducer = {0x0badcafe, 0x12ab, 0x0c0d, {0xde, 0xad, 0x01, 0x02, 0x03, 0x04, 0x05, 0xff}};
inline constexpr char kProducerText[] = "0BADCAFE-12AB-0C0D-DEAD-0102030405FF";
// The server link, from which results come.
inline constexpr GUID kServerLink = {0xc0e4f1b2, 0x3a59, 0x4d86, {0x8b, 0x7e, 0x91, 0xf2, 0xd6, 0xa3, 0xc4, 0xe7}};

struct ComboFields {
  int32_t iJsonDataType = 0;
  int32_t iPriv = 0;
  int32_t iDataSaveFlag = 0;
  std::string strProduct;  // at most 64 bytes
  std::string strCombo;
  std::string strData;
};
// The 148-byte header and the data.
std::string ComboPayload(const ComboFields& fields);

// The 32 bytes of a delivery result; the bytes that carry nothing are filled with rubbish.
std::string ResultPayload(uint64_t u64DataId, uint32_t uResult);

struct SentFields {
  uint64_t u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  std::string_view svProduct;
  std::string_view svCombo;
  std::string_view svData;
};
// The text in which a record of kProducer must leave.
std::string ExpectedText(const SentFields& fields);

// The record's own data inside the tagged text; empty for any other text.
std::string ContentOf(std::string_view svText);

std::string ToHex(uint64_t u64Number);

#endif  // QMLOGCACHE_TESTS_COMPONENT_PAYLOADS_H_
