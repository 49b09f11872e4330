// One record as one line of JSON, the form that qmsend --records takes and that the host's file link writes, without
// the time of reception: dataid (lower-case hexadecimal), priority, public, kind, priv, msgtype, guid, product, combo,
// message. A text that is not valid UTF-8 stands under its name with "_base64" appended.
// Control characters and marks that change the direction of text are escaped: it is harmless on a terminal.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_RECORD_JSON_H_
#define QMLOGCACHE_TOOLS_QMCACHE_RECORD_JSON_H_

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/link/json_text.h"
#include "tools/qmcache/cache_record.h"

class CRecordJson {
 public:
  using Extra = std::vector<std::pair<const char*, std::string>>;

  // Appends the line without its end. extra: fields that stand behind the record's own, as texts.
  void Append(std::string& strOut, const CacheRecord& record, const Extra& extra = {});

 private:
  CJsonText m_jsonText;
};

#endif  // QMLOGCACHE_TOOLS_QMCACHE_RECORD_JSON_H_
