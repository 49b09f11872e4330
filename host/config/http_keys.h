// The keys of [http], and how they must go together.
#ifndef QMLOGCACHE_HOST_CONFIG_HTTP_KEYS_H_
#define QMLOGCACHE_HOST_CONFIG_HTTP_KEYS_H_

#include <string>
#include <utility>
#include <vector>

#include "host/config/key_rule.h"

const std::vector<KeyRule>& HttpKeyRules();

// What is wrong with keys that are good one by one: the key to blame, and the text. For the driver in use.
std::vector<std::pair<std::string, std::string>> HttpKeyProblems(const HttpDriverOptions& options);

#endif  // QMLOGCACHE_HOST_CONFIG_HTTP_KEYS_H_
