#ifndef QMLOGCACHE_SUPPORT_PRECOMPILED_H_
#define QMLOGCACHE_SUPPORT_PRECOMPILED_H_

// Compiled once for all test programs. A test still includes what it uses.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#endif  // QMLOGCACHE_SUPPORT_PRECOMPILED_H_
