// One record of a cache file: the row as it is stored, and what it says.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_CACHE_RECORD_H_
#define QMLOGCACHE_TOOLS_QMCACHE_CACHE_RECORD_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What datatype says of data.
inline constexpr int64_t kPlain = 0;
inline constexpr int64_t kBase64 = 1;

// A row's values. What is not of the column's type is missing.
struct StoredRow {
  int64_t i64RowId = 0;
  std::optional<int64_t> dataId;
  std::optional<int64_t> priv;
  std::optional<int64_t> msgType;
  std::optional<std::string> product;
  std::optional<std::string> combo;
  std::optional<int64_t> dataType;
  std::optional<std::string> data;
};

struct CacheRecord {
  uint64_t u64DataId = 0;
  int32_t iPriv = 0;     // as in host/link/tagged_text.h
  int32_t iMsgType = 0;  // as in host/link/tagged_text.h
  std::string strGuid;   // of the sender
  std::string strProduct;
  std::string strCombo;
  std::string strMessage;
};

struct DecodedRow {
  std::optional<CacheRecord> record;   // missing when the row holds no record
  std::vector<std::string> vecFaults;  // all that is wrong with the row, for people
};

// strSender: the sender after whom the row's file is named; empty when that is not known.
[[nodiscard]] DecodedRow DecodeRow(const StoredRow& row, std::string_view svSender);

// The beginning of a record's tagged text, up to its message.
[[nodiscard]] std::string TaggedHead(const CacheRecord& record);

// The text of a data id, lower-case hexadecimal, and its way back ("0x" allowed). False for anything else.
[[nodiscard]] std::string DataIdText(uint64_t u64DataId);
[[nodiscard]] bool ReadDataId(std::string_view svText, uint64_t& u64DataId);

// Whether the text is a sender's id as files are named: upper case, no braces.
[[nodiscard]] bool IsSenderId(std::string_view svText);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_CACHE_RECORD_H_
