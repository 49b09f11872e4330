// Names that a NATS server knows: subjects and streams.
//
// A record's subject is PREFIX.AGENT.KIND.PRIORITY, "qmlogcache.0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11.edr.high": the
// agent's UUID, and the words of the record's line.
#ifndef QMLOGCACHE_HOST_LINK_NATS_NATS_NAMES_H_
#define QMLOGCACHE_HOST_LINK_NATS_NATS_NAMES_H_

#include <string>
#include <string_view>
#include <vector>

#include "host/link/tagged_text.h"

// Empty when svPrefix is one token of a subject or several with dots in between, each of letters, digits, - and _;
// otherwise what is wrong with it. Nothing that a server gives a meaning of its own ($, *, >, _INBOX) passes.
[[nodiscard]] std::string CheckSubjectPrefix(std::string_view svPrefix);
// Likewise for a stream's name, which is one token.
[[nodiscard]] std::string CheckStreamName(std::string_view svName);

// Appends the subject of a record. Throws std::bad_alloc.
void AppendSubject(std::string& strOut, const std::string& strPrefix, const std::string& strAgentId,
                   const TaggedText& tags);
// Every subject that AppendSubject can make for the agent. Throws std::bad_alloc.
std::vector<std::string> AllSubjects(const std::string& strPrefix, const std::string& strAgentId);
// Whether a subject without wildcards falls under a pattern, which may have them (* for one token, > for the rest).
bool SubjectMatches(std::string_view svPattern, std::string_view svSubject);

#endif  // QMLOGCACHE_HOST_LINK_NATS_NATS_NAMES_H_
