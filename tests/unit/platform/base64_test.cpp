#include "platform/base64.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>

namespace {

struct Freer {
  void operator()(char* pText) const { std::free(pText); }
};
using Text = std::unique_ptr<char, Freer>;

Text Encode(const std::string& strBytes) {
  return Text(base64Encode(strBytes.data(), static_cast<int>(strBytes.size()), 0));
}
Text Decode(const std::string& strText) {
  return Text(base64Decode(strText.data(), static_cast<int>(strText.size()), 0));
}

TEST(Base64Test, EncodesTheVectorsOfTheRfc) {
  const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"}};
  for (const auto& [pszBytes, pszText] : vectors) {
    const Text encoded = Encode(pszBytes);
    ASSERT_NE(encoded, nullptr);
    EXPECT_STREQ(encoded.get(), pszText);
    const Text decoded = Decode(pszText);
    ASSERT_NE(decoded, nullptr) << pszText;
    EXPECT_STREQ(decoded.get(), pszBytes);
  }
}

TEST(Base64Test, UsesTheStandardAlphabet) {
  EXPECT_STREQ(Encode("\xFB\xFF").get(), "+/8=");
}

TEST(Base64Test, BreaksNoLines) {
  const Text encoded = Encode(std::string(3000, 'x'));
  ASSERT_NE(encoded, nullptr);
  EXPECT_EQ(std::string(encoded.get()).size(), 4000u);
  EXPECT_EQ(std::string(encoded.get()).find_first_of("\r\n"), std::string::npos);
}

TEST(Base64Test, GivesRandomBytesBack) {
  std::mt19937 random(20261121);
  for (int iRound = 0; iRound < 300; ++iRound) {
    std::string strBytes(random() % 200, '\0');
    for (char& cByte : strBytes) {
      cByte = static_cast<char>(random());
    }
    const Text encoded = Encode(strBytes);
    ASSERT_NE(encoded, nullptr);
    const Text decoded = Decode(encoded.get());
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(std::string(decoded.get(), strBytes.size()), strBytes);
    EXPECT_EQ(decoded.get()[strBytes.size()], '\0');
  }
}

TEST(Base64Test, RefusesMalformedText) {
  const std::string malformed[] = {"Z",      "Zg",        "Zg=",     "Zg===",    "Zm8",
                                   "=",      "==",        "===",     "====",     "Z===",
                                   "Zg=A",   "Z=g=",      "Zm9v=",   "Zm9v====", "Zg==Zg==",
                                   "Zm9v\n", "Zm9v\nYg=", "Zm 9",    " Zm9",     "Zm9-",
                                   "Zm9_",   "Zg..",      "Zm9\xFF", "Zm8.",     std::string("Zm9\0", 4),
                                   "Zh==",   "Zm9="};
  for (const std::string& strText : malformed) {
    EXPECT_EQ(Decode(strText), nullptr) << strText;
  }
}

TEST(Base64Test, ReadsNoFurtherThanTheLength) {
  const Text decoded(base64Decode("Zm9v!!!!", 4, 0));
  ASSERT_NE(decoded, nullptr);
  EXPECT_STREQ(decoded.get(), "foo");
  const Text encoded(base64Encode("foobar", 3, 0));
  EXPECT_STREQ(encoded.get(), "Zm9v");
}

TEST(Base64Test, RefusesBadArguments) {
  EXPECT_EQ(base64Encode(nullptr, 1, 0), nullptr);
  EXPECT_EQ(base64Encode("a", -1, 0), nullptr);
  EXPECT_EQ(base64Decode(nullptr, 4, 0), nullptr);
  EXPECT_EQ(base64Decode("Zg==", -4, 0), nullptr);
}

TEST(Base64Test, NothingGivesTheEmptyText) {
  EXPECT_STREQ(Text(base64Encode(nullptr, 0, 0)).get(), "");
  EXPECT_STREQ(Text(base64Decode(nullptr, 0, 0)).get(), "");
}

}  // namespace
