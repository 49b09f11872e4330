// The id of this agent: a UUID that destinations know its records by.
#ifndef QMLOGCACHE_HOST_LINK_AGENT_ID_H_
#define QMLOGCACHE_HOST_LINK_AGENT_ID_H_

#include <string>
#include <string_view>

// A UUID in its usual form, lower-case in strId. False when svText is none.
[[nodiscard]] bool ReadAgentId(std::string_view svText, std::string& strId);

// The id in the file; a file that is not there is made with a new one, on disk before it is used. False with a reason:
// a file that holds anything else is left as it is, since a new id would make every record look new.
[[nodiscard]] bool LoadAgentId(const std::string& strFile, std::string& strId, std::string& strError);

#endif  // QMLOGCACHE_HOST_LINK_AGENT_ID_H_
