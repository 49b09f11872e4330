// What the statuses of answers mean to a producer.
#ifndef QMLOGCACHE_CLIENT_CORE_STATUS_WORDS_H_
#define QMLOGCACHE_CLIENT_CORE_STATUS_WORDS_H_

#include <cstdint>

// A few words for people; null for a status that has none here.
const char* StatusWords(uint32_t uStatus);

// The status does not tell whether the record was taken; every other refusal means that it was not.
bool IsOutcomeUnknown(uint32_t uStatus);

// The status is about that one record, which would be refused again at any time. Every other refusal is about the
// host's or the component's state, and may pass.
bool IsRecordAtFault(uint32_t uStatus);

#endif  // QMLOGCACHE_CLIENT_CORE_STATUS_WORDS_H_
