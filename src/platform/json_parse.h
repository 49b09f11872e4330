// JSON reader of the platform library.
#ifndef QMLOGCACHE_PLATFORM_JSON_PARSE_H_
#define QMLOGCACHE_PLATFORM_JSON_PARSE_H_

#include <memory>

#include "platform/cpstring.h"

namespace qmtools {
inline namespace v1 {

class QM_PLATFORM_API CPJsonParse {
 public:
  // A value inside the parsed document; owned by the parser, valid until the next LoadBuffer.
  struct Node;

  CPJsonParse();
  ~CPJsonParse();
  CPJsonParse(const CPJsonParse&) = delete;
  CPJsonParse& operator=(const CPJsonParse&) = delete;

  // Parses a whole document. False for malformed text, text nested deeper than 512 levels, or want of memory; never
  // throws.
  bool LoadBuffer(const CPString& strText);
  // The member of pParent (null: the document's top level) with that key; null when pParent is no object or has none.
  const Node* GetNode(const Node* pParent, const char* pszKey) const;
  // A string's text; any other scalar's JSON text ("1", "true", "null"); an object's or array's JSON text; empty for
  // null.
  CPString GetValue(const Node* pNode) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_pImpl;
};

}  // namespace v1
}  // namespace qmtools

#endif  // QMLOGCACHE_PLATFORM_JSON_PARSE_H_
