#include "host/protocol/sender_guid.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Text(const GUID& guid) {
  char szBuffer[kGuidBufferSize] = {};
  FormatGuid(guid, szBuffer);
  return szBuffer;
}

TEST(SenderGuidTest, AGuidStaysThatGuid) {
  EXPECT_EQ(Text(SenderGuid("5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358")), "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358");
  EXPECT_EQ(Text(SenderGuid("5d3b1a07-8e24-4c91-b6f0-2a7c9e41d358")), "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358");
  EXPECT_EQ(Text(SenderGuid("{5d3b1a07-8e24-4c91-b6f0-2a7c9e41d358}")), "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358");
}

// Fixed for good: a change would give every named sender another identity.
TEST(SenderGuidTest, ANameGivesItsFixedGuid) {
  EXPECT_EQ(Text(SenderGuid("web-server")), "D7D8AF24-1F50-52A2-BEE3-0A374EC75DB6");
  EXPECT_EQ(Text(SenderGuid("")), "CAA6992D-B17C-5964-9D3C-0C36EC410CF5");
}

TEST(SenderGuidTest, ANamedGuidSaysThatItIsOne) {
  const std::string strText = Text(SenderGuid("qmsend root"));
  EXPECT_EQ(strText[14], '5');
  EXPECT_NE(std::string("89AB").find(strText[19]), std::string::npos);
}

TEST(SenderGuidTest, NamesThatDifferGiveGuidsThatDiffer) {
  EXPECT_NE(Text(SenderGuid("a")), Text(SenderGuid("b")));
  EXPECT_NE(Text(SenderGuid("Web-Server")), Text(SenderGuid("web-server")));
}

TEST(SenderGuidTest, WhatOnlyBeginsLikeAGuidIsAName) {
  const std::string strGuid = "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358";
  for (const std::string& strName : {strGuid + "0", strGuid.substr(0, 35), "+D3B1A0" + strGuid.substr(7), " " + strGuid,
                                     "{" + strGuid, std::string(36, '-'), std::string(36, 'A')}) {
    EXPECT_NE(Text(SenderGuid(strName)), strGuid) << strName;
    EXPECT_EQ(Text(SenderGuid(strName))[14], '5') << strName;
  }
}

}  // namespace
