// The keys of [nats], and how they must go together.
#ifndef QMLOGCACHE_HOST_CONFIG_NATS_KEYS_H_
#define QMLOGCACHE_HOST_CONFIG_NATS_KEYS_H_

#include <string>
#include <utility>
#include <vector>

#include "host/config/key_rule.h"

const std::vector<KeyRule>& NatsKeyRules();

// What is wrong with keys that are good one by one: the key to blame, and the text. For the driver in use.
std::vector<std::pair<std::string, std::string>> NatsKeyProblems(const NatsDriverOptions& options);

#endif  // QMLOGCACHE_HOST_CONFIG_NATS_KEYS_H_
