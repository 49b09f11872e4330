#ifndef QMLOGCACHE_TOOLS_QMCACHE_SQLITE_URI_H_
#define QMLOGCACHE_TOOLS_QMCACHE_SQLITE_URI_H_

#include <string>

// The path as an SQLite URI with the query behind it, and with its directory's symbolic links resolved, so that SQLite can
// be told to follow none. Empty when the directory is not there.
[[nodiscard]] std::string UriOf(const std::string& strPath, const char* pszQuery);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_SQLITE_URI_H_
