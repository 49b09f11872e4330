// Checks what a sink wrote against what the loader sent: every line, whole, exactly once.
#ifndef QMLOGCACHE_BENCH_PEERS_OUTPUT_CHECK_H_
#define QMLOGCACHE_BENCH_PEERS_OUTPUT_CHECK_H_

#include <cstdint>
#include <string>

enum class OutputForm { Plain, Json };

struct OutputCounts {
  uint64_t u64Lines = 0;
  uint64_t u64Distinct = 0;
  uint64_t u64Repeated = 0;
  uint64_t u64Foreign = 0;  // lines that the loader did not send, or not so
};

// Reads the whole file. Json: the line is the member "message" of an object a line. Throws std::exception.
OutputCounts CheckOutput(const std::string& strPath, OutputForm form, uint64_t u64Sent);

#endif  // QMLOGCACHE_BENCH_PEERS_OUTPUT_CHECK_H_
