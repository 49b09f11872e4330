// A batch as it travels: JSON lines, gzip-compressed, with a key that is the same whenever the same bytes are sent.
#ifndef QMLOGCACHE_HOST_LINK_HTTP_BATCH_BODY_H_
#define QMLOGCACHE_HOST_LINK_HTTP_BATCH_BODY_H_

#include <string>

#include "host/link/http/batch_queue.h"
#include "host/link/record_line.h"

struct BatchBody {
  std::string strGzip;
  std::string strKey;  // a UUID that follows from the agent's id and the lines (RFC 9562, version 5)
};

// Not for several threads at a time.
class CBatchBody {
 public:
  // strAgentId: a UUID in its text form.
  explicit CBatchBody(const std::string& strAgentId);

  // The lines are those of AppendIdentifiedLine; no records make a body of no lines. Throws std::bad_alloc.
  void Make(const LinkRecordList& vecRecords, BatchBody& body);

 private:
  const std::string m_strAgentId;
  std::string m_strLines;
  CRecordLine m_recordLine;
};

// Throws std::bad_alloc.
void Gzip(const std::string& strBytes, std::string& strGzip);

#endif  // QMLOGCACHE_HOST_LINK_HTTP_BATCH_BODY_H_
