// Every status code the component returns or compares, in one place. 32 bits, 0 for success; printed with "%x".
#ifndef QMLOGCACHE_PLATFORM_STATUS_CODES_H_
#define QMLOGCACHE_PLATFORM_STATUS_CODES_H_

#include <cstdint>

inline constexpr int StatusFromBits(uint32_t uBits) {
  return static_cast<int>(uBits);
}

inline constexpr int kStatusOk = 0;

// Bad input and limits.
inline constexpr int kStatusEmptyData = StatusFromBits(0xA0010002);      // a message without data
inline constexpr int kStatusBadSize = StatusFromBits(0xA0010003);        // a payload shorter than it says
inline constexpr int kStatusBadResultSize = StatusFromBits(0xA0010004);  // a result message of the wrong size
inline constexpr int kStatusUnknownType = StatusFromBits(0xA0010005);    // no such message type or priority code
inline constexpr int kStatusNoDiskSpace = StatusFromBits(0xA0010011);    // too little free space for the cache
inline constexpr int kStatusDirectoryFull = StatusFromBits(0xA0010012);  // the cache directory has reached its limit
inline constexpr int kStatusFileFull = StatusFromBits(0xA0010013);       // a cache file has reached its limit
inline constexpr int kStatusCountLimit = StatusFromBits(0xA0010014);     // too many records in memory
inline constexpr int kStatusEncodeFailed = kStatusEmptyData;             // the payload could not be encoded
inline constexpr int kStatusNoConnection = StatusFromBits(0xA0010021);   // a cache file cannot be opened or created
inline constexpr int kStatusLogThrew = StatusFromBits(0xA0010022);       // even the failure could not be logged
inline constexpr int kStatusInsertFailed = StatusFromBits(0xA0010023);
inline constexpr int kStatusInsertThrew = StatusFromBits(0xA0010024);
inline constexpr int kStatusDeleteFailed = StatusFromBits(0xA0010025);
inline constexpr int kStatusDeleteThrew = StatusFromBits(0xA0010026);
inline constexpr int kStatusSelectFailed = StatusFromBits(0xA0010027);  // or a row could not be decoded
inline constexpr int kStatusSelectThrew = StatusFromBits(0xA0010028);
inline constexpr int kStatusNoRowsWanted = StatusFromBits(0xA0010041);   // a read with a count limit of 0
inline constexpr int kStatusUnknownDataId = StatusFromBits(0xA0010042);  // no record with that data id

// Missing objects.
inline constexpr uint32_t kStatusNoReplyYet = 0xE0010000;             // preset before a synchronous request
inline constexpr int kStatusNoObject = StatusFromBits(0xE0010002);    // null record, no cache file, no context
inline constexpr int kStatusNoResource = StatusFromBits(0xE0010003);  // no manager, no memory, queue refused

// Results of a delivery. Anything that is neither of these rejects the record for good.
inline constexpr uint32_t kResultDelivered = 0;
inline constexpr uint32_t kResultTimeout = 0xE0010019;      // retried
inline constexpr uint32_t kResultCloudBusy = 0xB0010025;    // retried
inline constexpr uint32_t kResultCloudFailed = 0xB0010026;  // retried

#endif  // QMLOGCACHE_PLATFORM_STATUS_CODES_H_
