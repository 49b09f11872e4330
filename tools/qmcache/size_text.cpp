#include "tools/qmcache/size_text.h"

#include <fmt/format.h>

#include <array>

std::string SizeText(uint64_t u64Bytes) {
  constexpr std::array<const char*, 4> kUnits = {"KiB", "MiB", "GiB", "TiB"};
  constexpr double kStep = 1024;
  if (u64Bytes < 1024) {
    return fmt::format("{} B", u64Bytes);
  }
  double dSize = static_cast<double>(u64Bytes) / kStep;
  size_t uUnit = 0;
  while (dSize >= 1023.95 && uUnit + 1 < kUnits.size()) {
    dSize /= kStep;
    ++uUnit;
  }
  return fmt::format("{:.1f} {}", dSize, kUnits[uUnit]);
}
