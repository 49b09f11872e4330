#include "tools/qmsend/json_record.h"

#include <absl/strings/ascii.h>
#include <absl/strings/escaping.h>

#include <array>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "host/protocol/combo_payload.h"
#include "plugin/compctx/message_types.h"

namespace {

using Json = nlohmann::json;

constexpr int32_t kPublic = 10;
constexpr int32_t kEdr = 1;
constexpr int32_t kEpp = 2;

using Names = std::array<std::pair<std::string_view, int32_t>, 4>;
constexpr Names kPriorities = {{{"low", 0}, {"normal", 1}, {"high", 2}, {"real", 3}}};
constexpr Names kKinds = {{{"edr", kEdr}, {"epp", kEpp}, {"tag", 3}, {"", 0}}};

// The text, or the bytes behind its name with "_base64" appended. Missing when neither is there.
std::optional<std::string> Text(const Json& json, const std::string& strName) {
  if (const auto it = json.find(strName); it != json.end() && it->is_string()) {
    return it->get<std::string>();
  }
  std::string strBytes;
  const auto it = json.find(strName + "_base64");
  if (it == json.end() || !it->is_string() || !absl::Base64Unescape(it->get_ref<const std::string&>(), &strBytes)) {
    return std::nullopt;
  }
  return strBytes;
}

std::optional<int32_t> Number(const Json& json, const char* pszName) {
  const auto it = json.find(pszName);
  if (it == json.end() || !it->is_number_integer()) {
    return std::nullopt;
  }
  const bool bFits = it->is_number_unsigned()
                         ? it->get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max())
                         : it->get<int64_t>() >= std::numeric_limits<int32_t>::min();
  return bFits ? std::optional(it->get<int32_t>()) : std::nullopt;
}

std::optional<int32_t> Named(const Json& json, const char* pszName, const Names& names) {
  const std::string strValue = Text(json, pszName).value_or("");
  for (const auto& [svName, iValue] : names) {
    if (!strValue.empty() && strValue == svName) {
      return iValue;
    }
  }
  return std::nullopt;
}

// The number itself, which alone tells all values apart, before its names.
std::optional<int32_t> Priority(const Json& json) {
  if (json.contains("priv")) {
    return Number(json, "priv");
  }
  std::optional<int32_t> priority = Named(json, "priority", kPriorities);
  const auto it = json.find("public");
  if (priority && it != json.end() && it->is_boolean() && it->get<bool>()) {
    *priority += kPublic;
  }
  return priority;
}

std::optional<int32_t> Kind(const Json& json) {
  return json.contains("msgtype") ? Number(json, "msgtype") : Named(json, "kind", kKinds);
}

bool ReadGuid(const std::string& strText, GUID& guid) {
  char szText[kGuidBufferSize] = {};
  if (!ParseGuid(strText.c_str(), guid)) {
    return false;
  }
  FormatGuid(guid, szText);
  return absl::AsciiStrToUpper(strText) == szText;  // nothing behind it
}

// Whether a message of a priority's own type says all there is to say.
bool IsPlain(int32_t iPriv, int32_t iKind) {
  constexpr int32_t kPriorityCount = 4;
  const bool bPrivate = iPriv >= 0 && iPriv < kPriorityCount;
  const bool bPublic = iPriv >= kPublic && iPriv < kPublic + kPriorityCount;
  return (iKind == kEdr || iKind == kEpp) && (bPrivate || bPublic);
}

}  // namespace

bool ReadJsonRecord(std::string_view svLine, bool bNoSave, JsonRecord& record) {
  const Json json = Json::parse(svLine, nullptr, false);
  if (!json.is_object()) {
    return false;
  }
  const std::optional<std::string> guid = Text(json, "guid");
  const std::optional<std::string> message = Text(json, "message");
  const std::optional<int32_t> priv = Priority(json);
  const std::optional<int32_t> kind = Kind(json);
  if (!guid || !ReadGuid(*guid, record.sender) || !message || !priv || *priv < 0 || !kind) {
    return false;
  }
  const std::string strProduct = Text(json, "product").value_or("");
  const std::string strCombo = Text(json, "combo").value_or("");
  record.bZeroByte = message->find('\0') != std::string::npos;
  // An empty record is taken only as a combo message.
  if (strProduct.empty() && strCombo.empty() && !bNoSave && !message->empty() && IsPlain(*priv, *kind)) {
    record.uType =
        static_cast<uint32_t>((*kind == kEdr ? LOGCACHE_MSG_SYNC_SERVER_BASE : LOGCACHE_MSG_SYNC_PLUGIN_BASE) + *priv);
    record.strPayload = *message;
    return true;
  }
  ComboHeader header{};
  std::string strError;
  if (!MakeComboHeader({*kind, *priv, bNoSave ? kComboDoNotSave : 0, strProduct, strCombo}, header, strError)) {
    return false;
  }
  record.uType = LOGCACHE_MSG_SYNC_SEND_JSON_COMBO_DATA;
  record.strPayload.clear();
  AppendComboPayload(record.strPayload, header, *message);
  return true;
}
