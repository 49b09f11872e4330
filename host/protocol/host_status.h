// Status codes that the host itself answers with, beside those of the component it carries. 32 bits, 0 for success.
#ifndef QMLOGCACHE_HOST_PROTOCOL_HOST_STATUS_H_
#define QMLOGCACHE_HOST_PROTOCOL_HOST_STATUS_H_

#include <cstdint>

inline constexpr uint32_t kHostOk = 0;
inline constexpr uint32_t kHostNoReceiver = 0xE0020001;     // no component takes that message type
inline constexpr uint32_t kHostNotAllowed = 0xE0020002;     // a producer may not send that message type
inline constexpr uint32_t kHostNoDestination = 0xE0020003;  // no component with that GUID
inline constexpr uint32_t kHostStopping = 0xE0020004;       // the host or the component is going away
inline constexpr uint32_t kHostNoReply = 0xE0020005;        // the receiver did not answer in time, or ended before
inline constexpr uint32_t kHostAlreadyTaken = 0xE0020006;   // the type or the GUID belongs to another component
inline constexpr uint32_t kHostBadArgument = 0xE0020007;    // null pointer, unknown handle
inline constexpr uint32_t kHostNoMemory = 0xE0020008;
inline constexpr uint32_t kHostBadText = 0xA0020001;        // the server link cannot read a record's text
inline constexpr uint32_t kHostRecordRefused = 0xA0020002;  // the destination refused this very record for good
// A send whose outcome did not come in time; the component retries it.
inline constexpr uint32_t kHostSendTimeout = 0xE0010019;
// Results of other links than the host's own that make the component retry, too.
inline constexpr uint32_t kHostCloudBusy = 0xB0010025;
inline constexpr uint32_t kHostCloudUnavailable = 0xB0010026;

#endif  // QMLOGCACHE_HOST_PROTOCOL_HOST_STATUS_H_
