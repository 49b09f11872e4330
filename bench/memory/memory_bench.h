// The measurements of the program, one a file. Each prints its lines; none changes what another one finds.
#ifndef QMLOGCACHE_BENCH_MEMORY_MEMORY_BENCH_H_
#define QMLOGCACHE_BENCH_MEMORY_MEMORY_BENCH_H_

#include "bench/support/bench_options.h"

inline constexpr unsigned int kDataSize = 400;  // bytes of a record's data

// memory_pipeline: records a second from reception to settlement, three threads, beside a bare pipeline of the same
// shape.
void MeasurePipeline(const BenchOptions& options);
// cost_per_record: one more record and one less, with so many held. memory_held: what 500,000 records take.
void MeasureBacklog(const BenchOptions& options);
// intake_at_limit: intake that marks the oldest record, link down.
void MeasureIntakeAtLimit(const BenchOptions& options);
// latency: from reception to send.
void MeasureLatency(const BenchOptions& options);
// log_line_off: a line whose level is off.
void MeasureLogLineOff(const BenchOptions& options);

#endif  // QMLOGCACHE_BENCH_MEMORY_MEMORY_BENCH_H_
