// Where the status is served.
#ifndef QMLOGCACHE_HOST_STATUS_STATUS_OPTIONS_H_
#define QMLOGCACHE_HOST_STATUS_STATUS_OPTIONS_H_

#include <cstdint>
#include <string>

struct StatusOptions {
  std::string strAddress;  // of 127.0.0.0/8, or ::1; empty: no status is served
  uint16_t uPort = 0;
};

#endif  // QMLOGCACHE_HOST_STATUS_STATUS_OPTIONS_H_
