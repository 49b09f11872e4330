#include "client/core/message_builder.h"

#include "plugin/compctx/message_types.h"

namespace {

constexpr int32_t kPublic = 10;

}  // namespace

bool CMessageBuilder::Configure(const MessageOptions& options, std::string& strError) {
  const int32_t iPriv = static_cast<int32_t>(options.priority) + (options.bPublic ? kPublic : 0);
  m_bCombo =
      options.kind == RecordKind::Tag || options.bNoSave || !options.strProduct.empty() || !options.strCombo.empty();
  if (m_bCombo) {
    m_uType = LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA;
    return MakeComboHeader({static_cast<int32_t>(options.kind), iPriv, options.bNoSave ? kComboDoNotSave : 0,
                            options.strProduct, options.strCombo},
                           m_header, strError);
  }
  const uint32_t uBase =
      options.kind == RecordKind::Edr ? LOGCACHE_MSG_SYNC_SERVER_BASE : LOGCACHE_MSG_SYNC_PLUGIN_BASE;
  m_uType = uBase + static_cast<uint32_t>(iPriv);
  return true;
}

void CMessageBuilder::Build(std::string_view svRecord, std::string& strPayload) const {
  strPayload.clear();
  if (m_bCombo) {
    AppendComboPayload(strPayload, m_header, svRecord);
  } else {
    strPayload.assign(svRecord);
  }
}
