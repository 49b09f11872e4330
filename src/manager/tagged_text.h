// The text in which a record travels to the destination.
#ifndef QMLOGCACHE_MANAGER_TAGGED_TEXT_H_
#define QMLOGCACHE_MANAGER_TAGGED_TEXT_H_

#include "platform/cpstring.h"

// "<version=1><dataid=...>...<end=1><msg=DATA>". Values go in as they are, without escaping; strData only up to its
// first zero byte. Throws std::bad_alloc or std::length_error when there is no memory for it.
CPString BuildTaggedText(unsigned long long u64DataId, int iPriv, int iMsgType, const CPString& strPluginId,
                         const CPString& strProduct, const CPString& strCombo, const CPString& strData);

#endif  // QMLOGCACHE_MANAGER_TAGGED_TEXT_H_
