// The identifier under which a producer's records are kept.
#ifndef QMLOGCACHE_HOST_PROTOCOL_SENDER_GUID_H_
#define QMLOGCACHE_HOST_PROTOCOL_SENDER_GUID_H_

#include <string_view>

#include "plugin/compctx/guid.h"

// A text of GUID form (36 characters, braces around them allowed, either case) is that GUID. Any other text is a name,
// and a name always gives the same GUID: a name-based UUID (SHA-1, version 5) in this project's own namespace.
[[nodiscard]] GUID SenderGuid(std::string_view svNameOrGuid);

#endif  // QMLOGCACHE_HOST_PROTOCOL_SENDER_GUID_H_
