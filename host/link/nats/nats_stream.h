// What the agent needs of a stream, and what the stream's configuration does with records that it has acknowledged.
#ifndef QMLOGCACHE_HOST_LINK_NATS_NATS_STREAM_H_
#define QMLOGCACHE_HOST_LINK_NATS_NATS_STREAM_H_

#include <string>
#include <vector>

struct jsStreamInfo;  // of libnats

// Empty when records of these subjects can be sent to the stream and are acknowledged; otherwise why not, for the log.
// Throws std::bad_alloc.
[[nodiscard]] std::string WhyStreamIsOfNoUse(const std::string& strStream, const jsStreamInfo& info,
                                             const std::vector<std::string>& vecSubjects);

// In which cases the stream loses acknowledged records by its operator's choice; empty when it keeps them until it is
// told otherwise. Of a stream of use. An age (max_age) is no such case: it says plainly how long a record is kept.
// Throws std::bad_alloc.
std::string DescribeLosses(const std::string& strStream, const jsStreamInfo& info);

#endif  // QMLOGCACHE_HOST_LINK_NATS_NATS_STREAM_H_
