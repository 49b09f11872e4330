// The text in which a record travels to the destination.
#ifndef QMLOGCACHE_MANAGER_TAGGED_TEXT_H_
#define QMLOGCACHE_MANAGER_TAGGED_TEXT_H_

#include <string_view>

#include "platform/cpstring.h"

// "<version=1><dataid=...>...<end=1><msg=DATA>". Values go in as they are, without escaping; each text only up to its
// first zero byte. Throws std::bad_alloc or std::length_error when there is no memory for it.
CPString BuildTaggedText(unsigned long long u64DataId, int iPriv, int iMsgType, std::string_view svPluginId,
                         std::string_view svProduct, std::string_view svCombo, std::string_view svData);

#endif  // QMLOGCACHE_MANAGER_TAGGED_TEXT_H_
