// The component in memory: throughput, cost by backlog, memory, latency, and what a silent log line costs.
#include "bench/memory/memory_bench.h"

#include <cstdio>
#include <exception>

int main(int iArguments, char** ppszArguments) {
  const BenchOptions options = ParseBenchOptions(
      iArguments, ppszArguments,
      {"memory_pipeline", "cost_per_record", "memory_held", "intake_at_limit", "latency", "log_line_off"});
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
