#include "plugin/compctx/guid.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string TextOf(const GUID& guid) {
  char szBuffer[kGuidBufferSize] = {};
  FormatGuid(guid, szBuffer);
  return szBuffer;
}

TEST(GuidTest, WritesThirtySixUpperCaseCharactersWithoutBraces) {
  const GUID guid = {0x0000abcd, 0x00ef, 0x0012, {0xde, 0xad, 0xbe, 0xef, 0x00, 0x01, 0x0a, 0xff}};
  EXPECT_EQ("0000ABCD-00EF-0012-DEAD-BEEF00010AFF", TextOf(guid));
}

TEST(GuidTest, ReadsItsOwnText) {
  GUID guid{};
  ASSERT_TRUE(ParseGuid("5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358", guid));
  EXPECT_EQ(0x5D3B1A07u, guid.Data1);
  EXPECT_EQ(0x8E24u, guid.Data2);
  EXPECT_EQ(0x4C91u, guid.Data3);
  const uint8_t abExpected[8] = {0xB6, 0xF0, 0x2A, 0x7C, 0x9E, 0x41, 0xD3, 0x58};
  EXPECT_EQ(0, memcmp(abExpected, guid.Data4, sizeof(abExpected)));
  EXPECT_EQ("5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358", TextOf(guid));
}

TEST(GuidTest, ReadsLowerCase) {
  GUID guid{};
  ASSERT_TRUE(ParseGuid("c0e4f1b2-3a59-4d86-8b7e-91f2d6a3c4e7", guid));
  EXPECT_EQ("C0E4F1B2-3A59-4D86-8B7E-91F2D6A3C4E7", TextOf(guid));
}

TEST(GuidTest, RefusesTextThatIsNoGuid) {
  GUID guid = {1, 2, 3, {4}};
  EXPECT_FALSE(ParseGuid("5D3B1A07-8E24-4C91", guid));
  EXPECT_EQ("00000000-0000-0000-0000-000000000000", TextOf(guid));
  EXPECT_FALSE(ParseGuid("", guid));
}

TEST(GuidTest, TheTwoKnownComponentsHaveTheirTexts) {
  EXPECT_STREQ("5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358", kComponentGuidText);
  EXPECT_STREQ("C0E4F1B2-3A59-4D86-8B7E-91F2D6A3C4E7", kServerLinkGuidText);
}

}  // namespace
