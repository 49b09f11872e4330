#ifndef QMLOGCACHE_HOST_LINK_LOOPBACK_NAME_H_
#define QMLOGCACHE_HOST_LINK_LOOPBACK_NAME_H_

#include <string>

// Whether a URL's host is this machine by its very name, so that nobody else hears what is sent: 127.0.0.0/8, [::1]
// or localhost.
bool IsLoopbackName(const std::string& strHost);

#endif  // QMLOGCACHE_HOST_LINK_LOOPBACK_NAME_H_
