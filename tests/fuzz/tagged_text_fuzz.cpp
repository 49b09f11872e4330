// The text in which a record travels, from the component's writer through the host's reader to the line of JSON.
//
// The input is either a text to be read as it stands, or the parts of a record from which the component writes one.
//
// Holds: the reader splits a text without losing or inventing a byte; it takes every text that the component writes,
// finds its numbers and sender, and never cuts the message short. A record's line is one line of valid JSON that gives
// back every field's bytes and ends with its only line break.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "host/link/record_line.h"
#include "host/link/tagged_text.h"
#include "manager/tagged_text.h"
#include "plugin/compctx/guid.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/own_base64.h"

namespace {

std::string Hexadecimal(uint64_t u64Number) {
  char szText[32];
  snprintf(szText, sizeof(szText), "%llx", static_cast<unsigned long long>(u64Number));
  return szText;
}

std::string Join(const TaggedText& tags) {
  return "<version=1><dataid=" + Hexadecimal(tags.u64DataId) + "><priv=" + std::to_string(tags.iPriv) +
         "><msgtype=" + std::to_string(tags.iMsgType) + "><guid=" + std::string(tags.svGuid) +
         "><product=" + std::string(tags.svProduct) + "><combo=" + std::string(tags.svCombo) +
         "><end=1><msg=" + std::string(tags.svMessage) + ">";
}

// A field's bytes, whichever form it has; the two never stand together.
std::string FieldOf(const nlohmann::json& line, const std::string& strName) {
  const std::string strEncodedName = strName + "_base64";
  FUZZ_CHECK(line.contains(strName) != line.contains(strEncodedName));
  if (line.contains(strName)) {
    return line[strName].get<std::string>();
  }
  const auto strText = line[strEncodedName].get<std::string>();
  const std::optional<std::string> bytes = ReadBase64(strText);
  FUZZ_CHECK(bytes.has_value() && !bytes->empty());
  return *bytes;
}

void CheckLine(const TaggedText& tags, int64_t i64ReceivedUs) {
  static auto& recordLine = *new CRecordLine;
  LinkRecord record{};
  record.tags = tags;
  record.i64ReceivedUs = i64ReceivedUs;
  std::string strLine;
  recordLine.Append(strLine, record);
  FUZZ_CHECK(strLine.find('\n') == strLine.size() - 1);
  const nlohmann::json line = nlohmann::json::parse(strLine, nullptr, /*allow_exceptions=*/false);
  FUZZ_CHECK(line.is_object() && line.size() == 11);
  FUZZ_CHECK(line["dataid"] == Hexadecimal(tags.u64DataId));
  FUZZ_CHECK(line["priv"] == tags.iPriv);
  FUZZ_CHECK(line["msgtype"] == tags.iMsgType);
  FUZZ_CHECK(FieldOf(line, "guid") == tags.svGuid);
  FUZZ_CHECK(FieldOf(line, "product") == tags.svProduct);
  FUZZ_CHECK(FieldOf(line, "combo") == tags.svCombo);
  FUZZ_CHECK(FieldOf(line, "message") == tags.svMessage);
  FUZZ_CHECK(line["time_received"].get<std::string>().ends_with('Z'));
}

// The text in a buffer of just its length: whoever reads on is caught.
class CExactText {
 public:
  explicit CExactText(std::string_view svText) : m_pText(new char[svText.size()]), m_uLength(svText.size()) {
    memcpy(m_pText.get(), svText.data(), svText.size());
  }
  std::string_view View() const { return {m_pText.get(), m_uLength}; }

 private:
  std::unique_ptr<char[]> m_pText;
  size_t m_uLength;
};

void ReadAsItStands(FuzzedDataProvider& input) {
  const auto i64ReceivedUs = input.ConsumeIntegral<int64_t>();
  const std::string strText = input.ConsumeRemainingBytesAsString();
  const CExactText text(strText);
  TaggedText tags;
  if (!ParseTaggedText(text.View(), tags)) {
    return;
  }
  FUZZ_CHECK(Join(tags) == strText);
  CheckLine(tags, i64ReceivedUs);
}

void WriteAndRead(FuzzedDataProvider& input) {
  constexpr size_t kNameSize = 64;
  const auto u64DataId = input.ConsumeIntegralInRange<unsigned long long>(1, UINT64_MAX);
  const auto iPriv = input.ConsumeIntegral<int32_t>();
  const auto iMsgType = input.ConsumeIntegral<int32_t>();
  GUID guid{};
  const std::string strGuidBytes = input.ConsumeBytesAsString(sizeof(guid));
  memcpy(&guid, strGuidBytes.data(), strGuidBytes.size());
  char szGuid[kGuidBufferSize] = {};
  FormatGuid(guid, szGuid);
  // Names reach the component as zero-terminated fields.
  const std::string strProduct = input.ConsumeRandomLengthString(kNameSize).c_str();
  const std::string strCombo = input.ConsumeRandomLengthString(kNameSize).c_str();
  const std::string strMessage = input.ConsumeRemainingBytesAsString();
  const CPString strText = BuildTaggedText(u64DataId, iPriv, iMsgType, szGuid, strProduct, strCombo, strMessage);
  const CExactText text(strText.View());
  TaggedText tags;
  FUZZ_CHECK(ParseTaggedText(text.View(), tags));
  FUZZ_CHECK(Join(tags) == strText.View());
  FUZZ_CHECK(tags.u64DataId == u64DataId);
  FUZZ_CHECK(tags.iPriv == iPriv);
  FUZZ_CHECK(tags.iMsgType == iMsgType);
  FUZZ_CHECK(tags.svGuid == szGuid);
  FUZZ_CHECK(tags.svMessage.ends_with(std::string(strMessage.c_str())));
  // What the header warns of aside, the split is the one that was meant.
  const bool bAmbiguous = (strProduct + strCombo).find('>') != std::string::npos;
  if (!bAmbiguous) {
    FUZZ_CHECK(tags.svProduct == strProduct);
    FUZZ_CHECK(tags.svCombo == strCombo);
    FUZZ_CHECK(tags.svMessage == std::string(strMessage.c_str()));
  }
  CheckLine(tags, static_cast<int64_t>(u64DataId));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  FuzzedDataProvider input(pData, uSize);
  if (input.ConsumeBool()) {
    WriteAndRead(input);
  } else {
    ReadAsItStands(input);
  }
  return 0;
}
