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

// The text, or the bytes behind its name with "_base64" appended; left as it is when neither is there. False when one is
// there and is no such thing.
bool ReadText(const Json& json, const std::string& strName, std::optional<std::string>& text) {
  if (const auto it = json.find(strName + "_base64"); it != json.end()) {
    std::string strBytes;
    if (!it->is_string() || !absl::Base64Unescape(it->get_ref<const std::string&>(), &strBytes)) {
      return false;
    }
    text = std::move(strBytes);
  }
  if (const auto it = json.find(strName); it != json.end()) {
    if (!it->is_string()) {
      return false;
    }
    text = it->get<std::string>();
  }
  return true;
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

std::optional<int32_t> Named(const std::string& strValue, const Names& names) {
  for (const auto& [svName, iValue] : names) {
    if (!strValue.empty() && strValue == svName) {
      return iValue;
    }
  }
  return std::nullopt;
}

// The number itself, which alone tells all values apart, before its names.
std::optional<int32_t> Priority(const Json& json, const std::string& strName) {
  const auto it = json.find("public");
  if (it != json.end() && !it->is_boolean()) {
    return std::nullopt;
  }
  if (json.contains("priv")) {
    return Number(json, "priv");
  }
  std::optional<int32_t> priority = Named(strName, kPriorities);
  if (priority && it != json.end() && it->get<bool>()) {
    *priority += kPublic;
  }
  return priority;
}

std::optional<int32_t> Kind(const Json& json, const std::string& strName) {
  return json.contains("msgtype") ? Number(json, "msgtype") : Named(strName, kKinds);
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
  std::optional<std::string> guid;
  std::optional<std::string> message;
  std::optional<std::string> product;
  std::optional<std::string> combo;
  std::optional<std::string> priorityName;
  std::optional<std::string> kindName;
  if (!ReadText(json, "guid", guid) || !ReadText(json, "message", message) || !ReadText(json, "product", product) ||
      !ReadText(json, "combo", combo) || !ReadText(json, "priority", priorityName) ||
      !ReadText(json, "kind", kindName)) {
    return false;
  }
  const std::optional<int32_t> priv = Priority(json, priorityName.value_or(""));
  const std::optional<int32_t> kind = Kind(json, kindName.value_or(""));
  if (!guid || !ReadGuid(*guid, record.sender) || !message || !priv || *priv < 0 || !kind) {
    return false;
  }
  const std::string strProduct = product.value_or("");
  const std::string strCombo = combo.value_or("");
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
