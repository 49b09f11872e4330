// "38.2 MiB": bytes for people.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_SIZE_TEXT_H_
#define QMLOGCACHE_TOOLS_QMCACHE_SIZE_TEXT_H_

#include <cstdint>
#include <string>

[[nodiscard]] std::string SizeText(uint64_t u64Bytes);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_SIZE_TEXT_H_
