// The priority of a record, as an index into counters that are kept by priority.
#ifndef QMLOGCACHE_HOST_PROTOCOL_RECORD_PRIORITY_H_
#define QMLOGCACHE_HOST_PROTOCOL_RECORD_PRIORITY_H_

#include <array>
#include <cstddef>
#include <cstdint>

// The last one is for what is none of the four.
inline constexpr std::array<const char*, 5> kPriorityNames = {"low", "normal", "high", "real", "other"};
inline constexpr size_t kPriorityOther = kPriorityNames.size() - 1;

// A number for each priority.
using PriorityCounts = std::array<uint64_t, kPriorityNames.size()>;

// Of a privilege code: units digit 0 low to 3 real-time, 10 more for public data.
size_t PriorityOfPrivilege(int32_t iPriv);

// What PriorityOfMessage says of a message that is no record.
inline constexpr size_t kNotARecord = kPriorityNames.size();

// Of a producer's message, from its type or, for a combo message, from the header of its payload.
size_t PriorityOfMessage(uint32_t uMsgType, const uint8_t* pData, uint32_t uLength);

#endif  // QMLOGCACHE_HOST_PROTOCOL_RECORD_PRIORITY_H_
