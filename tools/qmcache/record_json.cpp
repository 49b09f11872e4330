#include "tools/qmcache/record_json.h"

#include <fmt/format.h>

#include <iterator>

#include "host/link/record_line.h"

namespace {
constexpr int32_t kPublicPriv = 10;
}  // namespace

void CRecordJson::Append(std::string& strOut, const CacheRecord& record, const Extra& extra) {
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
}
