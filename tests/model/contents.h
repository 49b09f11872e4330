// Senders and what their records hold.
#ifndef QMLOGCACHE_TESTS_MODEL_CONTENTS_H_
#define QMLOGCACHE_TESTS_MODEL_CONTENTS_H_

#include <string>

#include "tests/model/command.h"
#include "tests/model/store_model.h"

std::string SenderName(int iSender);

// The same for the same arguments, and different for different ids.
Contents MakeContents(unsigned long long u64DataId, int iSender, int iPriv, int iMsgType, Payload payload);

#endif  // QMLOGCACHE_TESTS_MODEL_CONTENTS_H_
