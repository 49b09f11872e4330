// The keys of [nats], and how they must go together.
#ifndef QMLOGCACHE_HOST_CONFIG_NATS_KEYS_H_
#define QMLOGCACHE_HOST_CONFIG_NATS_KEYS_H_

#include <vector>

#include "host/config/key_rule.h"

const std::vector<KeyRule>& NatsKeyRules();

// For the driver in use.
KeyProblems NatsKeyProblems(const NatsDriverOptions& options);

#endif  // QMLOGCACHE_HOST_CONFIG_NATS_KEYS_H_
