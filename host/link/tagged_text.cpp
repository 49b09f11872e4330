#include "host/link/tagged_text.h"

#include <algorithm>
#include <charconv>
#include <cstddef>

#include "plugin/compctx/guid.h"

namespace {

// A product or combo comes out of a message field of this many bytes, so no longer one exists.
constexpr size_t kMaxNameSize = 64;
constexpr size_t kMaxDataIdDigits = 16;
constexpr size_t kMaxNumberLength = 11;  // "-2147483648"

constexpr std::string_view kComboTag = "><combo=";
constexpr std::string_view kMessageTag = "><end=1><msg=";

[[gnu::always_inline]] inline bool TakePrefix(std::string_view& svRest, std::string_view svPrefix) {
  if (!svRest.starts_with(svPrefix)) {
    return false;
  }
  svRest.remove_prefix(svPrefix.size());
  return true;
}

// Takes "VALUE>" with a value of 1 to uMax bytes that holds no '>'.
bool TakeValue(std::string_view& svRest, size_t uMax, std::string_view& svValue) {
  const size_t uLimit = std::min(svRest.size(), uMax + 1);
  size_t uEnd = 0;
  while (uEnd < uLimit && svRest[uEnd] != '>') {
    ++uEnd;
  }
  if (uEnd == uLimit || uEnd == 0) {
    return false;
  }
  svValue = svRest.substr(0, uEnd);
  svRest.remove_prefix(uEnd + 1);
  return true;
}

// Only the digits that the sender writes: lower case, no leading zero. At most 16 of them.
bool ReadDataId(std::string_view svValue, uint64_t& u64DataId) {
  u64DataId = 0;
  for (const char c : svValue) {
    const bool bDecimal = c >= '0' && c <= '9';
    if (!bDecimal && (c < 'a' || c > 'f')) {
      return false;
    }
    u64DataId = (u64DataId << 4U) | static_cast<uint64_t>(bDecimal ? c - '0' : c - 'a' + 10);
  }
  return svValue.front() != '0';
}

bool ReadNumber(std::string_view svValue, int32_t& iNumber) {
  const std::string_view svDigits = svValue.front() == '-' ? svValue.substr(1) : svValue;
  const bool bLeadingZero = svDigits.starts_with('0') && svValue != "0";
  const auto result = std::from_chars(svValue.data(), svValue.data() + svValue.size(), iNumber, 10);
  return !bLeadingZero && result.ec == std::errc() && result.ptr == svValue.data() + svValue.size();
}

// svRest is what follows "<product=", without the text's closing '>'.
//
// Takes the earliest combo tag that leaves names of possible length, and after it the earliest message tag. The split
// that the sender meant always qualifies and the chosen one never lies behind it, so a message is never cut short,
// whatever it holds. What cannot be told apart: a product that holds "><combo=" (its tail is read as part of the combo,
// unless the combo would grow too long), and a product or combo that holds the message tag (its tail is read as the
// beginning of the message). Such names lose nothing; their bytes only move to the next field.
bool SplitNames(std::string_view svRest, TaggedText& out) {
  const std::string_view svHead = svRest.substr(0, kMaxNameSize + kComboTag.size());
  for (size_t uCombo = svHead.find(kComboTag); uCombo != std::string_view::npos;
       uCombo = svHead.find(kComboTag, uCombo + 1)) {
    const std::string_view svAfter = svRest.substr(uCombo + kComboTag.size());
    const size_t uMessage = svAfter.substr(0, kMaxNameSize + kMessageTag.size()).find(kMessageTag);
    if (uMessage != std::string_view::npos) {
      out.svProduct = svRest.substr(0, uCombo);
      out.svCombo = svAfter.substr(0, uMessage);
      out.svMessage = svAfter.substr(uMessage + kMessageTag.size());
      return true;
    }
  }
  return false;
}

}  // namespace

bool ParseTaggedText(std::string_view svText, TaggedText& out) {
  if (!svText.ends_with('>')) {
    return false;
  }
  // The closing '>' is none of the values'. Without it every value before the names still ends with one of its own.
  std::string_view svRest = svText.substr(0, svText.size() - 1);
  std::string_view svDataId;
  std::string_view svPriv;
  std::string_view svMsgType;
  if (!TakePrefix(svRest, "<version=1><dataid=") || !TakeValue(svRest, kMaxDataIdDigits, svDataId) ||
      !TakePrefix(svRest, "<priv=") || !TakeValue(svRest, kMaxNumberLength, svPriv) ||
      !TakePrefix(svRest, "<msgtype=") || !TakeValue(svRest, kMaxNumberLength, svMsgType) ||
      !TakePrefix(svRest, "<guid=")) {
    return false;
  }
  if (!ReadDataId(svDataId, out.u64DataId) || !ReadNumber(svPriv, out.iPriv) || !ReadNumber(svMsgType, out.iMsgType)) {
    return false;
  }
  // Of fixed length, so that not even a '>' in it could shift the fields behind it.
  out.svGuid = svRest.substr(0, kGuidTextLength);
  svRest.remove_prefix(out.svGuid.size());
  return TakePrefix(svRest, "><product=") && SplitNames(svRest, out);
}
