// Keeps what is written off what is read.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_OUTPUT_GUARD_H_
#define QMLOGCACHE_TOOLS_QMCACHE_OUTPUT_GUARD_H_

#include <string>

// Why strOutput is not to be written; empty when it may be. It may not be anything in the cache directory, nor one of
// its files under another name, nor any database, log or journal of one, or backup elsewhere.
[[nodiscard]] std::string ObjectionTo(const std::string& strOutput, const std::string& strCacheDirectory);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_OUTPUT_GUARD_H_
