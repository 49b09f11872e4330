#include "host/link/back_off.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>

CBackOff::CBackOff(uint64_t u64Seed, std::chrono::milliseconds longest)
    : m_longest(longest), m_first(std::min(kFirstBackOff, longest)), m_ceiling(m_first), m_random(u64Seed) {}

std::chrono::milliseconds CBackOff::Next(std::optional<std::chrono::seconds> retryAfter) {
  const std::chrono::milliseconds jitter = Draw(m_ceiling);
  m_ceiling = std::min(m_ceiling * 2, m_longest);
  return jitter + retryAfter.value_or(std::chrono::seconds(0));
}

std::chrono::milliseconds CBackOff::Spread() {
  return Draw(std::min(kLongestSpread, m_longest));
}

std::chrono::milliseconds CBackOff::Draw(std::chrono::milliseconds most) {
  return std::chrono::milliseconds(std::uniform_int_distribution<int64_t>(0, most.count())(m_random));
}

uint64_t MakeSeed() noexcept {
  uint64_t u64Seed = 0;
  if (getrandom(&u64Seed, sizeof(u64Seed), GRND_NONBLOCK) == sizeof(u64Seed)) {
    return u64Seed;
  }
  const auto u64Wall = static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
  const auto u64Steady = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  return u64Wall ^ (u64Steady << 20U) ^ (static_cast<uint64_t>(getpid()) << 44U);
}
