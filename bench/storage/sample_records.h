// Messages of 400 bytes, and the texts that the component makes of them and stores.
#ifndef QMLOGCACHE_BENCH_STORAGE_SAMPLE_RECORDS_H_
#define QMLOGCACHE_BENCH_STORAGE_SAMPLE_RECORDS_H_

#include <string>

#include "platform/cpstring.h"

// Fields of every record.
inline constexpr int kSamplePriv = 1;
inline constexpr int kSampleMsgType = 1;
inline constexpr char kSampleSender[] = "01234567-89AB-CDEF-0123-456789ABCDEF";

// Data ids as a component gives them that began at a certain second. uIndex from 1.
unsigned long long SampleDataId(size_t uIndex);
// A message's payload: 400 bytes of JSON.
std::string SamplePayload(size_t uIndex);
// The tagged text of that payload as its sender's record: what a row's data column holds, about 520 bytes.
CPString SampleText(size_t uIndex);

#endif  // QMLOGCACHE_BENCH_STORAGE_SAMPLE_RECORDS_H_
