// Reads the tagged text in which the component sends a record:
//   <version=1><dataid=HEX><priv=N><msgtype=N><guid=TEXT><product=TEXT><combo=TEXT><end=1><msg=DATA>
// Values are not escaped by the sender, so a product or combo may hold anything, "><" and whole tags included.
#ifndef QMLOGCACHE_HOST_LINK_TAGGED_TEXT_H_
#define QMLOGCACHE_HOST_LINK_TAGGED_TEXT_H_

#include <cstdint>
#include <string_view>

// Fields of one record; the views point into the parsed text.
struct TaggedText {
  uint64_t u64DataId = 0;
  int32_t iPriv = 0;     // units digit: 0 low, 1 normal, 2 high, 3 real-time; 10 added for public data
  int32_t iMsgType = 0;  // 1 EDR, 2 EPP, 3 cloud tag
  std::string_view svGuid;
  std::string_view svProduct;
  std::string_view svCombo;
  std::string_view svMessage;
};

// False when the text is not of that form; out is then unspecified. Never reads past the text and allocates nothing.
[[nodiscard]] bool ParseTaggedText(std::string_view svText, TaggedText& out);

#endif  // QMLOGCACHE_HOST_LINK_TAGGED_TEXT_H_
