#include "tools/qmcache/cache_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <limits>
#include <memory>

#include "host/link/tagged_text.h"
#include "platform/base64.h"
#include "plugin/compctx/guid.h"

namespace {

// The decoder's result ends at its terminating zero, and so does what the component reads.
bool DecodePayload(const std::string& strEncoded, std::string& strText) {
  if (strEncoded.size() > INT_MAX) {
    return false;
  }
  const std::unique_ptr<char, decltype(&std::free)> pszText(
      base64Decode(strEncoded.data(), static_cast<int>(strEncoded.size()), 0), &std::free);
  if (pszText == nullptr) {
    return false;
  }
  strText = pszText.get();
  return true;
}

bool FitsInt32(int64_t i64) {
  return i64 >= std::numeric_limits<int32_t>::min() && i64 <= std::numeric_limits<int32_t>::max();
}

// What of the row is of no use at all.
void CheckColumns(const StoredRow& row, std::vector<std::string>& vecFaults) {
  const auto fnCheck = [&vecFaults](bool bGood, const char* pszFault) {
    if (!bGood) {
      vecFaults.emplace_back(pszFault);
    }
  };
  fnCheck(row.dataId.has_value() && *row.dataId == row.i64RowId, "dataid is not the row's key");
  fnCheck(row.priv.has_value() && FitsInt32(*row.priv), "priv is no number of 32 bits");
  fnCheck(row.msgType.has_value() && FitsInt32(*row.msgType), "msgtype is no number of 32 bits");
  fnCheck(row.product.has_value(), "product is no text");
  fnCheck(row.combo.has_value(), "combo is no text");
  fnCheck(row.dataType.has_value() && (*row.dataType == kPlain || *row.dataType == kBase64),
          "datatype is neither 0 nor 1");
  fnCheck(row.data.has_value(), "data is no text");
}

CacheRecord FromTags(const TaggedText& tags) {
  return {tags.u64DataId,
          tags.iPriv,
          tags.iMsgType,
          std::string(tags.svGuid),
          std::string(tags.svProduct),
          std::string(tags.svCombo),
          std::string(tags.svMessage)};
}

// Where the columns say something else than the text that is sent.
void CompareWithTags(const StoredRow& row, std::string_view svSender, const CacheRecord& record,
                     std::vector<std::string>& vecFaults) {
  if (row.priv && *row.priv != record.iPriv) {
    vecFaults.push_back(fmt::format("the text's priv is {}, the row's {}", record.iPriv, *row.priv));
  }
  if (row.msgType && *row.msgType != record.iMsgType) {
    vecFaults.push_back(fmt::format("the text's msgtype is {}, the row's {}", record.iMsgType, *row.msgType));
  }
  if (!svSender.empty() && record.strGuid != svSender) {
    vecFaults.push_back(fmt::format("the text's sender is {}, not the file's", record.strGuid));
  }
  if ((row.product && *row.product != record.strProduct) || (row.combo && *row.combo != record.strCombo)) {
    vecFaults.emplace_back("the text's product and combo are not the row's");
  }
}

}  // namespace

std::string TaggedHead(const CacheRecord& record) {
  return fmt::format(
      "<version=1><dataid={:x}><priv={}><msgtype={}><guid={}><product={}><combo={}><end=1><msg=", record.u64DataId,
      record.iPriv, record.iMsgType, record.strGuid, record.strProduct, record.strCombo);
}

DecodedRow DecodeRow(const StoredRow& row, std::string_view svSender) {
  DecodedRow decoded;
  CheckColumns(row, decoded.vecFaults);
  if (!row.data) {
    return decoded;
  }
  std::string strDecoded;
  const bool bBase64 = row.dataType.has_value() && *row.dataType == kBase64;
  if (bBase64 && !DecodePayload(*row.data, strDecoded)) {
    decoded.vecFaults.emplace_back("data is not base64");
    return decoded;
  }
  const std::string& strText = bBase64 ? strDecoded : *row.data;
  TaggedText tags;
  if (!ParseTaggedText(strText, tags)) {
    decoded.vecFaults.emplace_back("data is no tagged text");
    return decoded;
  }
  if (tags.u64DataId != static_cast<uint64_t>(row.i64RowId)) {
    decoded.vecFaults.push_back(fmt::format("the text's dataid is {}", DataIdText(tags.u64DataId)));
    return decoded;
  }
  CacheRecord record = FromTags(tags);
  if (row.product && row.combo) {
    // Names may hold tags, so the text alone does not say where they end; with the row's names it does.
    CacheRecord named = record;
    named.strProduct = *row.product;
    named.strCombo = *row.combo;
    const std::string strHead = TaggedHead(named);
    if (strText.size() > strHead.size() && strText.starts_with(strHead)) {
      named.strMessage = strText.substr(strHead.size(), strText.size() - strHead.size() - 1);
      record = std::move(named);
    }
  }
  CompareWithTags(row, svSender, record, decoded.vecFaults);
  decoded.record = std::move(record);
  return decoded;
}

std::string DataIdText(uint64_t u64DataId) {
  return fmt::format("{:x}", u64DataId);
}

bool ReadDataId(std::string_view svText, uint64_t& u64DataId) {
  constexpr int kHexadecimal = 16;
  if (svText.starts_with("0x") || svText.starts_with("0X")) {
    svText.remove_prefix(2);
  }
  const auto result = std::from_chars(svText.data(), svText.data() + svText.size(), u64DataId, kHexadecimal);
  return !svText.empty() && result.ec == std::errc() && result.ptr == svText.data() + svText.size();
}

bool IsSenderId(std::string_view svText) {
  GUID guid{};
  if (svText.size() != kGuidTextLength || !ParseGuid(std::string(svText).c_str(), guid)) {
    return false;
  }
  char szText[kGuidBufferSize] = {};
  FormatGuid(guid, szText);
  return svText == szText;
}
