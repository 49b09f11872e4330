// The lines that the loader sends, each told by its number.
#ifndef QMLOGCACHE_BENCH_PEERS_LOADER_LINES_H_
#define QMLOGCACHE_BENCH_PEERS_LOADER_LINES_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Without the line break.
inline constexpr size_t kLineSize = 400;

// A line has the form of syslog (RFC 3164), so that a daemon that parses finds what it expects. One line in eight holds
// quotation marks and a backslash, which JSON escapes.
class CLoaderLines {
 public:
  CLoaderLines();

  // Valid until the next call.
  std::string_view Line(uint64_t u64Number);
  // The number that a line says it has; false when it has none in its place.
  static bool ReadNumber(std::string_view svLine, uint64_t& u64Number);

 private:
  std::array<std::string, 2> m_astrForms;
};

#endif  // QMLOGCACHE_BENCH_PEERS_LOADER_LINES_H_
