// Intake while the link is down: below the count limit, at it, and at it when many records are marked already.
#include <chrono>
#include <stdexcept>
#include <string>

#include "bench/memory/memory_bench.h"
#include "bench/support/loaded_component.h"
#include "bench/support/result_line.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr ResultGroup kGroup = {"intake_at_limit", kInMemory};

double NanosecondsARecord(CLoadedComponent& component, unsigned int uRecords) {
  const std::string strData(kDataSize, 'd');
  const auto tBegin = std::chrono::steady_clock::now();
  for (unsigned int i = 0; i < uRecords; ++i) {
    if (!component.Send(1, LOGCACHE_MSG_SYNC_EDR_PRIV_LOW, strData)) {
      throw std::runtime_error("a record was refused");
    }
  }
  const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - tBegin;
  return elapsed.count() / uRecords;
}

}  // namespace

void MeasureIntakeAtLimit(const BenchOptions& options) {
  constexpr unsigned int kLimit = 120000;
  constexpr unsigned int kMeasured = 20000;
  constexpr unsigned int kMarked = 100000;
  if (!options.IsWanted(kGroup.pszGroup)) {
    return;
  }
  for (int iRound = 1; iRound <= options.iRounds; ++iRound) {
    const CBenchInstallation installation(
        options.strDirectory, "dataflowflag = 2\ndatacoverflag = 1\ndatacountlimit = " + std::to_string(kLimit) + "\n");
    CNoSink sink;
    CLoadedComponent component(sink);
    NanosecondsARecord(component, kLimit - kMeasured);
    kGroup.Print("below_limit", iRound, "ns", "ns/record", NanosecondsARecord(component, kMeasured));
    NanosecondsARecord(component, 1);  // one over the limit is allowed
    kGroup.Print("at_limit", iRound, "ns", "ns/record", NanosecondsARecord(component, kMeasured));
    NanosecondsARecord(component, kMarked - kMeasured);
    kGroup.Print("at_limit_after_100000_marked", iRound, "ns", "ns/record", NanosecondsARecord(component, kMeasured));
  }
}
