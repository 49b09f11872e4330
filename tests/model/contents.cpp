#include "tests/model/contents.h"

#include <array>

std::string SenderName(int iSender) {
  static const std::array<const char*, kSenders> names = {"01234567-89AB-CDEF-0123-456789ABCDEF",
                                                          "89ABCDEF-0123-4567-89AB-CDEF01234567", "sender.with.dots"};
  return names[static_cast<size_t>(iSender)];
}

Contents MakeContents(unsigned long long u64DataId, int iSender, int iPriv, int iMsgType, Payload payload) {
  const std::string strId = std::to_string(u64DataId);
  Contents contents{iPriv, iMsgType, SenderName(iSender), "product", "combo " + strId, {}};
  switch (payload) {
    case kText:
      contents.strData = "<record " + strId + ">";
      break;
    case kQuotes:
      contents.strProduct = "it's";
      contents.strCombo = "'" + strId + "''";
      contents.strData = "'it''s' \"" + strId + "\" \\'";
      break;
    case kAllBytes:
      for (int i = 1; i < 256; ++i) {
        contents.strData += static_cast<char>(i);
      }
      contents.strData += strId;
      break;
    case kEmpty:
      contents.strCombo.clear();
      break;
    case kKibibytes:
      while (contents.strData.size() < 5000) {
        contents.strData += strId + ",";
      }
      break;
    case kZeroByte:
      contents.strData = "before" + std::string(1, '\0') + "after " + strId;
      break;
    case kStatement:
      contents.strProduct = "'); drop table logcache; --";
      contents.strData = "'); delete from logcache; -- " + strId;
      break;
    case kZeroByteProduct:
      contents.strProduct = "pro" + std::string(1, '\0') + "duct";
      contents.strData = strId;
      break;
    case kPayloads:
      break;
  }
  return contents;
}
