// Text as JSON: a string literal for valid UTF-8, base64 for everything else.
#ifndef QMLOGCACHE_HOST_LINK_JSON_TEXT_H_
#define QMLOGCACHE_HOST_LINK_JSON_TEXT_H_

#include <memory>
#include <string>
#include <string_view>

namespace boost::json {
class serializer;
}

// Well-formed by RFC 3629: no overlong form, no surrogate, nothing above U+10FFFF. Zero bytes are valid.
[[nodiscard]] bool IsUtf8(std::string_view svText);

// Whether the text stands in a JSON literal as it is: ASCII without control characters, quotes and backslashes.
[[nodiscard]] bool IsPlainJson(std::string_view svText);

// Standard alphabet with padding. Throws std::bad_alloc.
void AppendBase64(std::string& strOut, std::string_view svBytes);

// Not for several threads at a time.
class CJsonText {
 public:
  CJsonText();
  ~CJsonText();
  CJsonText(const CJsonText&) = delete;
  CJsonText& operator=(const CJsonText&) = delete;

  // Appends "svName":"svText", or "svName_base64":"..." when the text is not valid UTF-8. svName needs no escaping.
  void AppendField(std::string& strOut, std::string_view svName, std::string_view svText);

 private:
  void AppendLiteral(std::string& strOut, std::string_view svText);

  std::unique_ptr<boost::json::serializer> m_pSerializer;
};

#endif  // QMLOGCACHE_HOST_LINK_JSON_TEXT_H_
