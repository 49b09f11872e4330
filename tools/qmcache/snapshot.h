// A copy of a cache file that somebody writes to without a pause.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_SNAPSHOT_H_
#define QMLOGCACHE_TOOLS_QMCACHE_SNAPSHOT_H_

#include <string>

// Copies the file, as it is at one moment, to strTo, which is not there yet. SQLite does it, page by page and in one
// read transaction, for whose time the write-ahead log cannot be shortened; nothing is changed. False when SQLite cannot,
// or the file has no log with an index: without these a reader would keep the writer waiting. Throws Interruption.
[[nodiscard]] bool TakeSnapshot(const std::string& strFile, const std::string& strTo);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_SNAPSHOT_H_
