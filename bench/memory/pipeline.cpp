#include <chrono>
#include <stdexcept>
#include <string>

#include "bench/memory/bare_pipeline.h"
#include "bench/memory/memory_bench.h"
#include "bench/memory/settling_sink.h"
#include "bench/support/result_line.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr ResultGroup kGroup = {"memory_pipeline", kInMemory};
constexpr uint32_t kDelivered = 0;
constexpr uint64_t kMostOutstanding = 8192;

// One thread sends the records, of all four priorities, and a second one settles; the side's own thread is the third.
template <typename Side>
double RecordsPerSecond(CSettlingSink& sink, Side& side, uint64_t u64Records) {
  const std::string strData(kDataSize, 'd');
  sink.Begin([&side](uint64_t u64DataId) { side.Settle(u64DataId, kDelivered); });
  const auto tBegin = std::chrono::steady_clock::now();
  for (uint64_t i = 0; i < u64Records; ++i) {
    sink.HoldBack(i, kMostOutstanding);
    if (!side.Send(1, LOGCACHE_MSG_SYNC_EDR_PRIV_LOW + static_cast<uint32_t>(i % 4), strData)) {
      throw std::runtime_error("a record was refused");
    }
  }
  sink.WaitUntilSettled(u64Records);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - tBegin;
  sink.End();
  return static_cast<double>(u64Records) / elapsed.count();
}

double MeasureBare(uint64_t u64Records) {
  CSettlingSink sink;
  CBarePipeline bare(sink);
  return RecordsPerSecond(sink, bare, u64Records);
}

double MeasureComponent(const BenchOptions& options, const char* pszKeys, uint64_t u64Records) {
  const CBenchInstallation installation(options.strDirectory, pszKeys);
  CSettlingSink sink;
  CLoadedComponent component(sink);
  component.Connect();
  // The work thread notices within a second that it is connected; what is measured begins after that.
  RecordsPerSecond(sink, component, 1);
  return RecordsPerSecond(sink, component, u64Records);
}

constexpr int kCases = 3;

void MeasureCase(int iCase, int iRound, const BenchOptions& options, uint64_t u64Records) {
  switch (iCase) {
    case 0:
      kGroup.Print("bare", iRound, "rate", "records/s", MeasureBare(u64Records));
      break;
    case 1:
      kGroup.Print("component", iRound, "rate", "records/s",
                   MeasureComponent(options, "dataflowflag = 2\n", u64Records));
      break;
    default:
      kGroup.Print("component_flow1", iRound, "rate", "records/s",
                   MeasureComponent(options, "dataflowflag = 1\n", u64Records));
  }
}

}  // namespace

void MeasurePipeline(const BenchOptions& options) {
  if (!options.IsWanted(kGroup.pszGroup)) {
    return;
  }
  const uint64_t u64Records = options.bQuick ? 200000 : 1000000;
  // The order changes from round to round, so that no case always finds the heap as the same other one left it.
  for (int iRound = 1; iRound <= options.iRounds; ++iRound) {
    for (int iCase = 0; iCase < kCases; ++iCase) {
      MeasureCase((iRound + iCase) % kCases, iRound, options, u64Records);
    }
  }
}
