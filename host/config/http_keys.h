// The keys of [http], and how they must go together.
#ifndef QMLOGCACHE_HOST_CONFIG_HTTP_KEYS_H_
#define QMLOGCACHE_HOST_CONFIG_HTTP_KEYS_H_

#include <vector>

#include "host/config/key_rule.h"

const std::vector<KeyRule>& HttpKeyRules();

// For the driver in use.
KeyProblems HttpKeyProblems(const HttpDriverOptions& options);

#endif  // QMLOGCACHE_HOST_CONFIG_HTTP_KEYS_H_
