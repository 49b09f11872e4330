// The pauses between attempts to reach a server that is away: exponential, capped, and spread over the whole pause at
// random (full jitter), so that a fleet that lost its server together does not come back together.
#ifndef QMLOGCACHE_HOST_LINK_BACK_OFF_H_
#define QMLOGCACHE_HOST_LINK_BACK_OFF_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

// The first ceiling: a fleet that loses its server asks for it over so long, and one host hears of its return as soon.
inline constexpr std::chrono::milliseconds kFirstBackOff{4000};
// Over so long an attempt is spread that many agents are told to make at once.
inline constexpr std::chrono::milliseconds kLongestSpread{2000};

// Not for several threads at a time.
class CBackOff {
 public:
  // The seed decides the pauses; agents that are to differ need different ones.
  CBackOff(uint64_t u64Seed, std::chrono::milliseconds longest);

  // The pause before the next attempt: at random between nothing and a ceiling that doubles with each call. What the
  // server has asked for comes on top, so that its wish is kept and the fleet is spread all the same.
  std::chrono::milliseconds Next(std::optional<std::chrono::seconds> retryAfter);
  // How long to wait with an attempt that follows no other: at a start, or when new connections are asked for. At random
  // between nothing and kLongestSpread.
  std::chrono::milliseconds Spread();
  // The server has been well for long enough: the ceiling starts anew.
  void Reset() { m_ceiling = m_first; }
  std::chrono::milliseconds Ceiling() const { return m_ceiling; }

 private:
  std::chrono::milliseconds Draw(std::chrono::milliseconds most);

  const std::chrono::milliseconds m_longest;
  const std::chrono::milliseconds m_first;
  std::chrono::milliseconds m_ceiling;
  std::mt19937_64 m_random;
};

// A seed from the system's own source; from the clocks and the process number when that fails.
uint64_t MakeSeed() noexcept;

#endif  // QMLOGCACHE_HOST_LINK_BACK_OFF_H_
