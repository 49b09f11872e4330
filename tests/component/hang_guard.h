// How long a test waits for something that must come. Only a failing test ever waits that long.
#ifndef QMLOGCACHE_TESTS_COMPONENT_HANG_GUARD_H_
#define QMLOGCACHE_TESTS_COMPONENT_HANG_GUARD_H_

#include <chrono>

inline constexpr std::chrono::seconds kHangGuard(180);

#endif  // QMLOGCACHE_TESTS_COMPONENT_HANG_GUARD_H_
