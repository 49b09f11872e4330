// Statuses of answers and bytes of records, for people.
#ifndef QMLOGCACHE_TOOLS_QMSEND_STATUS_TEXT_H_
#define QMLOGCACHE_TOOLS_QMSEND_STATUS_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>

// "0xA0010014 (too many records in memory)".
std::string StatusText(uint32_t uStatus);

// The first bytes between double quotes, on one line: what is not printable ASCII, and backslash and quote, is escaped.
// bMore: the text goes on behind svBytes.
std::string Excerpt(std::string_view svBytes, bool bMore);

#endif  // QMLOGCACHE_TOOLS_QMSEND_STATUS_TEXT_H_
