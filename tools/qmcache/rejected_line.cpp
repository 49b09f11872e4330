#include "tools/qmcache/rejected_line.h"

#include <algorithm>
#include <charconv>

#include "host/link/tagged_text.h"
#include "platform/log_escape.h"
#include "tools/qmcache/time_text.h"

namespace {

constexpr std::string_view kSettled = "*qmlogcache step3 Error ResultExecData result[";
constexpr std::string_view kNotSent = "*qmlogcache step2 Error RunExecData lRefCount[";
constexpr std::string_view kSender = "] strPluginId[";
constexpr std::string_view kProduct = "] strProduct[";
constexpr std::string_view kCombo = "] strCombo[";
constexpr std::string_view kData = "] strData[";
constexpr size_t kMaxNameSize = 64;

// What stands between "NAME[" and the next "]".
bool FindField(std::string_view svText, std::string_view svName, std::string_view& svValue) {
  const size_t uBegin = svText.find(svName);
  if (uBegin == std::string_view::npos) {
    return false;
  }
  const size_t uEnd = svText.find(']', uBegin + svName.size());
  svValue = svText.substr(uBegin + svName.size(), uEnd - uBegin - svName.size());
  return uEnd != std::string_view::npos;
}

template <typename Number>
bool ReadNumber(std::string_view svText, std::string_view svName, int iBase, Number& number) {
  std::string_view svValue;
  if (!FindField(svText, svName, svValue)) {
    return false;
  }
  const auto result = std::from_chars(svValue.data(), svValue.data() + svValue.size(), number, iBase);
  return result.ec == std::errc() && result.ptr == svValue.data() + svValue.size();
}

// svText: "PRODUCT] strCombo[COMBO] strData[TEXT]", where each may hold brackets and what looks like a field. The text
// repeats both names, and only the right division makes it begin with them.
bool SplitNames(std::string_view svText, CacheRecord& record) {
  if (!svText.ends_with(']')) {
    return false;
  }
  svText.remove_suffix(1);
  const std::string_view svHead = svText.substr(0, 2 * kMaxNameSize + kCombo.size() + kData.size());
  for (size_t uData = svHead.find(kData); uData != std::string_view::npos; uData = svHead.find(kData, uData + 1)) {
    const std::string_view svTagged = svText.substr(uData + kData.size());
    const std::string_view svNames = svText.substr(0, uData);
    for (size_t uCombo = svNames.find(kCombo); uCombo != std::string_view::npos;
         uCombo = svNames.find(kCombo, uCombo + 1)) {
      record.strProduct = svNames.substr(0, uCombo);
      record.strCombo = svNames.substr(uCombo + kCombo.size());
      const std::string strHead = TaggedHead(record);
      if (svTagged.size() > strHead.size() && svTagged.starts_with(strHead) && svTagged.ends_with('>')) {
        record.strMessage = svTagged.substr(strHead.size(), svTagged.size() - strHead.size() - 1);
        return true;
      }
    }
  }
  return false;
}

bool ReadRecord(std::string_view svText, CacheRecord& record) {
  constexpr int kHexadecimal = 16;
  constexpr int kDecimal = 10;
  const size_t uSender = svText.find(kSender);
  const size_t uProduct = svText.find(kProduct, uSender);
  if (uSender == std::string_view::npos || uProduct == std::string_view::npos) {
    return false;
  }
  // The numbers stand before the first text that somebody else may have chosen.
  const std::string_view svNumbers = svText.substr(0, uSender + 1);
  record.strGuid = svText.substr(uSender + kSender.size(), uProduct - uSender - kSender.size());
  return ReadNumber(svNumbers, " u64DataId[", kHexadecimal, record.u64DataId) &&
         ReadNumber(svNumbers, " iPriv[", kDecimal, record.iPriv) &&
         ReadNumber(svNumbers, " iMsgType[", kDecimal, record.iMsgType) &&
         SplitNames(svText.substr(uProduct + kProduct.size()), record);
}

}  // namespace

RejectedLine ParseRejectedLine(std::string_view svLine, RejectedRecord& out) {
  // "TIME PROCESS THREAD LLEVEL TEXT"
  constexpr int kWordsBefore = 4;
  const size_t uTime = svLine.find(' ');
  std::string_view svRest = svLine;
  for (int i = 0; i < kWordsBefore; ++i) {
    const size_t uSpace = svRest.find(' ');
    if (uSpace == std::string_view::npos) {
      return RejectedLine::Other;
    }
    svRest.remove_prefix(uSpace + 1);
  }
  const bool bSettled = svRest.starts_with(kSettled);
  if (!bSettled && !svRest.starts_with(kNotSent)) {
    return RejectedLine::Other;
  }
  out.strTime = svLine.substr(0, uTime);
  std::string strText;
  uint32_t uResult = 0;
  constexpr int kHexadecimal = 16;
  if (!ReadSince(out.strTime, 0, out.i64Second) || !UnescapeLogText(svRest, &strText) ||
      !ReadNumber(std::string_view(strText), bSettled ? " result[" : " iRet[", kHexadecimal, uResult) ||
      !ReadRecord(strText, out.record)) {
    return RejectedLine::Damaged;
  }
  out.strResult = "0x" + DataIdText(uResult);
  return RejectedLine::Record;
}
