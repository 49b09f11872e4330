// A record's line with the id that servers know it by, the same whenever the record is sent, also after a restart.
#ifndef QMLOGCACHE_HOST_LINK_IDENTIFIED_LINE_H_
#define QMLOGCACHE_HOST_LINK_IDENTIFIED_LINE_H_

#include <cstdint>
#include <string>

#include "host/link/record_line.h"

// AGENT/DATAID, the data id in lower-case hexadecimal. Throws std::bad_alloc.
void AppendRecordId(std::string& strOut, const std::string& strAgentId, uint64_t u64DataId);

// What CRecordLine writes, with "id":"AGENT/DATAID" before all other fields. Throws std::bad_alloc.
void AppendIdentifiedLine(std::string& strOut, const std::string& strAgentId, const LinkRecord& record,
                          CRecordLine& recordLine);

#endif  // QMLOGCACHE_HOST_LINK_IDENTIFIED_LINE_H_
