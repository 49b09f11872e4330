// Base64, both ways.
//
// Holds: the encoder's text stands for the same bytes to a reader of our own (support/own_base64.h) and to the decoder,
// is a third longer, padded, and of the alphabet alone; the decoder takes exactly the texts that our reader takes and
// finds the same bytes in them, so no text has a second spelling; nothing behind the text is read.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "platform/base64.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/own_base64.h"

namespace {

using MallocedText = std::unique_ptr<char, decltype(&free)>;

// A buffer that ends with the text: whoever reads on is caught.
std::unique_ptr<char[]> ExactCopy(const std::string& strText) {
  std::unique_ptr<char[]> pExact(new char[strText.size()]);
  memcpy(pExact.get(), strText.data(), strText.size());
  return pExact;
}

void CheckDecoding(const std::string& strText) {
  const std::optional<std::string> expected = ReadBase64(strText);
  const MallocedText pDecoded(base64Decode(ExactCopy(strText).get(), static_cast<int>(strText.size()), 0), &free);
  FUZZ_CHECK((pDecoded != nullptr) == expected.has_value());
  if (pDecoded != nullptr) {
    FUZZ_CHECK(memcmp(pDecoded.get(), expected->c_str(), expected->size() + 1) == 0);
  }
}

void CheckEncoding(const std::string& strBytes) {
  const MallocedText pEncoded(base64Encode(ExactCopy(strBytes).get(), static_cast<int>(strBytes.size()), 0), &free);
  FUZZ_CHECK(pEncoded != nullptr);
  const std::string strText = pEncoded.get();
  FUZZ_CHECK(strText.size() == (strBytes.size() + 2) / 3 * 4);
  FUZZ_CHECK(ReadBase64(strText) == strBytes);
  CheckDecoding(strText);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const std::string strInput(reinterpret_cast<const char*>(pData), uSize);
  CheckEncoding(strInput);
  CheckDecoding(strInput);
  return 0;
}
