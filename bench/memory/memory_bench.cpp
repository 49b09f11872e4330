// The component in memory: throughput, cost by backlog, memory, latency, and what a silent log line costs.
#include "bench/memory/memory_bench.h"

#include <cstdio>
#include <exception>

int main(int iArguments, char** ppszArguments) {
  const BenchOptions options = ParseBenchOptions(iArguments, ppszArguments);
  try {
    MeasurePipeline(options);
    MeasureBacklog(options);
    MeasureIntakeAtLimit(options);
    MeasureLatency(options);
    MeasureLogLineOff(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", ppszArguments[0], error.what());
    return 1;
  }
  return 0;
}
