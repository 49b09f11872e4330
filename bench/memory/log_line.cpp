#include <chrono>
#include <stdexcept>
#include <string>

#include "bench/memory/memory_bench.h"
#include "bench/support/loaded_component.h"
#include "bench/support/result_line.h"
#include "platform/log.h"

namespace {
constexpr ResultGroup kGroup = {"log_line_off", kInMemory};
}  // namespace

void MeasureLogLineOff(const BenchOptions& options) {
  constexpr unsigned int kLines = 10000000;
  if (!options.IsWanted(kGroup.pszGroup)) {
    return;
  }
  const CBenchInstallation installation(options.strDirectory, "");
  void* hLog = LogInit("bench");
  if (hLog == nullptr) {
    throw std::runtime_error("LogInit");
  }
  const std::string strData(kDataSize, 'd');
  for (int iRound = 1; iRound <= options.iRounds; ++iRound) {
    const auto tBegin = std::chrono::steady_clock::now();
    for (unsigned int i = 0; i < kLines; ++i) {
      // As many arguments as the longest line of the road has.
      LogPrint(hLog, kLogNormal, "qmlogcache OK [%d] [%lx] [%llx] [%d] [%d] [%d] [%s] [%s] [%s] [%s]", 0, 1UL,
               static_cast<unsigned long long>(i), 1, 1, 1, "sender", "product", "combo", strData.c_str());
    }
    const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - tBegin;
    kGroup.Print("level_off", iRound, "ns", "ns/line", elapsed.count() / kLines);
  }
  LogUninit(hLog);
}
