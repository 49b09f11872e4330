// Marks what libqmplatform.so exports besides its C functions.
#ifndef QMLOGCACHE_PLATFORM_API_H_
#define QMLOGCACHE_PLATFORM_API_H_

#define QM_PLATFORM_API __attribute__((visibility("default")))

#endif  // QMLOGCACHE_PLATFORM_API_H_
