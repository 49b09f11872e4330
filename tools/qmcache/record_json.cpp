#include "tools/qmcache/record_json.h"

#include <fmt/format.h>

#include <iterator>

#include "host/link/record_line.h"
#include "tools/qmcache/printable.h"

namespace {
constexpr int32_t kPublicPriv = 10;

// The character at the front of svText, of one to three bytes, when it is one that a terminal may act upon.
bool IsActing(std::string_view svText, size_t& uLength, unsigned int& uCode) {
  constexpr unsigned int kDelete = 0x7F;
  constexpr unsigned int kLastControl = 0x9F;
  const auto fnByte = [&](size_t i) { return static_cast<unsigned char>(svText[i]); };
  uLength = 1;
  uCode = fnByte(0);
  if (uCode == kDelete) {
    return true;
  }
  if (uCode == 0xC2 && svText.size() > 1) {
    uLength = 2;
    uCode = fnByte(1);
    return uCode <= kLastControl;
  }
  uLength = DirectionMarkLength(svText);
  if (uLength == 2) {
    uCode = (fnByte(0) & 0x1FU) << 6 | (fnByte(1) & 0x3FU);
  } else if (uLength == 3) {
    uCode = (fnByte(0) & 0x0FU) << 12 | (fnByte(1) & 0x3FU) << 6 | (fnByte(2) & 0x3FU);
  }
  return uLength != 0;
}

// Writes what a terminal may act upon, which stands in JSON's texts alone, as \u and four digits.
void Escape(std::string& strOut, size_t uFrom) {
  constexpr char kFirstBytes[] = "\x7F\xC2\xD8\xE2\xEF";
  size_t uAt = strOut.find_first_of(kFirstBytes, uFrom);
  if (uAt == std::string::npos) {
    return;
  }
  const std::string strText = strOut.substr(uAt);
  strOut.resize(uAt);
  for (uAt = 0; uAt < strText.size();) {
    size_t uLength = 0;
    unsigned int uCode = 0;
    if (IsActing(std::string_view(strText).substr(uAt), uLength, uCode)) {
      fmt::format_to(std::back_inserter(strOut), "\\u{:04x}", uCode);
      uAt += uLength;
    } else {
      strOut += strText[uAt++];
    }
  }
}

}  // namespace

void CRecordJson::Append(std::string& strOut, const CacheRecord& record, const Extra& extra) {
  const size_t uFrom = strOut.size();
  fmt::format_to(std::back_inserter(strOut),
                 R"({{"dataid":"{:x}","priority":"{}","public":{},"kind":"{}","priv":{},"msgtype":{},)",
                 record.u64DataId, PriorityName(record.iPriv), record.iPriv >= kPublicPriv, KindName(record.iMsgType),
                 record.iPriv, record.iMsgType);
  m_jsonText.AppendField(strOut, "guid", record.strGuid);
  strOut += ',';
  m_jsonText.AppendField(strOut, "product", record.strProduct);
  strOut += ',';
  m_jsonText.AppendField(strOut, "combo", record.strCombo);
  strOut += ',';
  m_jsonText.AppendField(strOut, "message", record.strMessage);
  for (const auto& [pszName, strValue] : extra) {
    strOut += ',';
    m_jsonText.AppendField(strOut, pszName, strValue);
  }
  strOut += '}';
  Escape(strOut, uFrom);
}
