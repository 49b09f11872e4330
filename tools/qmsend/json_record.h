// A record as a line of JSON, as `qmcache export`, `qmcache rejected` and the host's file link write it, made into the
// message that brings it back as it was: sender, priority, kind, product and combo are its own.
#ifndef QMLOGCACHE_TOOLS_QMSEND_JSON_RECORD_H_
#define QMLOGCACHE_TOOLS_QMSEND_JSON_RECORD_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "plugin/compctx/guid.h"

struct JsonRecord {
  GUID sender{};
  uint32_t uType = 0;      // of the message
  std::string strPayload;  // of the message
  bool bZeroByte = false;  // the message's text holds one
};

// A JSON line may be so much longer than the record that it holds: each byte as an escape, and the other fields.
inline constexpr size_t kJsonBytesARecordByte = 6;
inline constexpr size_t kJsonBytesAround = 4096;

// Needs guid, message (or message_base64), priv (or priority, with public) and msgtype (or kind); product and combo may
// be missing, and fields of other names do not count. False when one is missing, or is there and not of its kind: no
// record is sent with less than its line may have meant.
[[nodiscard]] bool ReadJsonRecord(std::string_view svLine, bool bNoSave, JsonRecord& record);

#endif  // QMLOGCACHE_TOOLS_QMSEND_JSON_RECORD_H_
