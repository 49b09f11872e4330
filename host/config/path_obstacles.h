// What at a path would keep the host from making its own there. Every function answers an empty text, or what is in the
// way in words that name it. A name that does not exist yet is in nobody's way.
#ifndef QMLOGCACHE_HOST_CONFIG_PATH_OBSTACLES_H_
#define QMLOGCACHE_HOST_CONFIG_PATH_OBSTACLES_H_

#include <string>

// A directory the host makes with its parents unless it is there.
[[nodiscard]] std::string DirectoryObstacle(const std::string& strPath);
// A Unix socket, which may replace an older one.
[[nodiscard]] std::string SocketObstacle(const std::string& strPath);
// A regular file that is appended to.
[[nodiscard]] std::string RecordFileObstacle(const std::string& strPath);

#endif  // QMLOGCACHE_HOST_CONFIG_PATH_OBSTACLES_H_
