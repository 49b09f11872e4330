// The payload of a JSON combo message (type 10300): a header of 148 bytes, then the record's data.
//
//   0 i32 data type   4 i32 privilege   8 i32 save flag   12 u32 zero   16 char[64] product   80 char[64] combo
//   144 u32 length of the data
//
// Both names are zero-terminated inside their fields, so the longest is 63 bytes.
#ifndef QMLOGCACHE_HOST_PROTOCOL_COMBO_PAYLOAD_H_
#define QMLOGCACHE_HOST_PROTOCOL_COMBO_PAYLOAD_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr size_t kComboHeaderSize = 148;
inline constexpr size_t kComboMaxNameLength = 63;
// The save flag of a record that is never to be written to disk; any other value leaves it to the component.
inline constexpr int32_t kComboDoNotSave = 2;

struct ComboFields {
  int32_t iJsonDataType = 1;  // 1 EDR, 2 EPP, 3 cloud tag
  int32_t iPriv = 0;          // 0 low to 3 real-time, 10 more for public
  int32_t iDataSaveFlag = 0;
  std::string_view svProduct;
  std::string_view svCombo;
};

using ComboHeader = std::array<char, kComboHeaderSize>;

// Makes a header for data of no length yet. False with a reason when a name is too long or holds a zero byte: names are
// never cut.
[[nodiscard]] bool MakeComboHeader(const ComboFields& fields, ComboHeader& header, std::string& strError);

// Appends the header with the data's length set, then the data (less than 4 GiB).
void AppendComboPayload(std::string& strOut, const ComboHeader& header, std::string_view svData);

#endif  // QMLOGCACHE_HOST_PROTOCOL_COMBO_PAYLOAD_H_
