#include "platform/json_parse.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using qmtools::CPJsonParse;
using namespace std::string_view_literals;

std::string ValueOf(std::string_view svText, const char* pszKey) {
  CPJsonParse parser;
  EXPECT_TRUE(parser.LoadBuffer(CPString(svText))) << svText;
  const CPJsonParse::Node* pNode = parser.GetNode(nullptr, pszKey);
  EXPECT_NE(pNode, nullptr) << svText;
  return std::string(parser.GetValue(pNode).View());
}

std::string Nested(size_t uDepth, char cOpen, char cClose) {
  return std::string(uDepth, cOpen) + std::string(uDepth, cClose);
}

TEST(JsonParseTest, GivesAStringsTextAndAnyOtherScalarsJson) {
  const std::pair<const char*, const char*> values[] = {
      {R"("1")", "1"},
      {"1", "1"},
      {"-12", "-12"},
      {"1.5", "1.5"},
      {"18446744073709551615", "18446744073709551615"},
      {"true", "true"},
      {"false", "false"},
      {"null", "null"},
      {R"("")", ""},
      {R"("a\n\"\u00e9")", "a\n\"\xC3\xA9"},
      {R"([1, "a"])", R"([1,"a"])"},
      {R"({"b": 1})", R"({"b":1})"},
  };
  for (const auto& [pszJson, pszText] : values) {
    EXPECT_EQ(ValueOf(R"({"other":0,"onlineflag":)" + std::string(pszJson) + "}", "onlineflag"), pszText);
  }
}

TEST(JsonParseTest, AStringMayHoldZeros) {
  EXPECT_EQ(ValueOf(R"({"a":"x\u0000y"})", "a"), "x\0y"sv);
}

TEST(JsonParseTest, ACStringsEndIsIgnored) {
  EXPECT_EQ(ValueOf("{\"a\":1}\0"sv, "a"), "1");
}

TEST(JsonParseTest, FindsMembersOfMembers) {
  CPJsonParse parser;
  ASSERT_TRUE(parser.LoadBuffer(R"({"a":{"b":{"c":7}}})"));
  const auto* pB = parser.GetNode(parser.GetNode(nullptr, "a"), "b");
  ASSERT_NE(pB, nullptr);
  EXPECT_STREQ(parser.GetValue(parser.GetNode(pB, "c")).c_str(), "7");
  EXPECT_EQ(parser.GetNode(pB, "a"), nullptr);
}

TEST(JsonParseTest, WhatIsNotThereIsNull) {
  CPJsonParse parser;
  EXPECT_EQ(parser.GetNode(nullptr, "a"), nullptr);
  ASSERT_TRUE(parser.LoadBuffer(R"({"a":1,"b":[{"a":1}]})"));
  EXPECT_EQ(parser.GetNode(nullptr, "c"), nullptr);
  EXPECT_EQ(parser.GetNode(nullptr, nullptr), nullptr);
  EXPECT_EQ(parser.GetNode(parser.GetNode(nullptr, "a"), "a"), nullptr);
  EXPECT_EQ(parser.GetNode(parser.GetNode(nullptr, "b"), "a"), nullptr);
  EXPECT_TRUE(parser.GetValue(nullptr).IsEmpty());
  ASSERT_TRUE(parser.LoadBuffer("[1]"));
  EXPECT_EQ(parser.GetNode(nullptr, "a"), nullptr);
}

TEST(JsonParseTest, MalformedTextFailsAndForgetsTheDocumentBefore) {
  const std::string_view malformed[] = {"",
                                        "{",
                                        "}",
                                        "{\"a\":}",
                                        "{\"a\":1}x",
                                        "{a:1}",
                                        "{'a':1}",
                                        "{\"a\":01}",
                                        "{\"a\":1e999}",
                                        "nul",
                                        "\"abc",
                                        "[1,]",
                                        "{\"a\":1,}",
                                        "{\"a\":\"\n\"}",
                                        "{\"a\":1}\0x"sv,
                                        "\0{}"sv,
                                        "\\\"",
                                        "{\"a\":\"\xFF\"}",
                                        "{\"a\":\"\xC0\x80\"}",
                                        "{\"a\":\"\\ud800\"}"};
  for (const std::string_view svText : malformed) {
    CPJsonParse parser;
    ASSERT_TRUE(parser.LoadBuffer(R"({"a":1})"));
    EXPECT_FALSE(parser.LoadBuffer(CPString(svText))) << svText;
    EXPECT_EQ(parser.GetNode(nullptr, "a"), nullptr);
  }
}

TEST(JsonParseTest, NestingIsBounded) {
  CPJsonParse parser;
  EXPECT_TRUE(parser.LoadBuffer(CPString(Nested(512, '[', ']'))));
  EXPECT_FALSE(parser.LoadBuffer(CPString(Nested(513, '[', ']'))));
  EXPECT_FALSE(parser.LoadBuffer(CPString(std::string(5'000'000, '['))));

  std::string strObjects;
  for (int iLevel = 0; iLevel < 100000; ++iLevel) {
    strObjects += "{\"a\":";
  }
  EXPECT_FALSE(parser.LoadBuffer(CPString(strObjects)));
}

TEST(JsonParseTest, TheDeepestAllowedNodeCanBeWrittenOut) {
  const std::string strDeep = Nested(511, '[', ']');
  EXPECT_EQ(ValueOf("{\"a\":" + strDeep + "}", "a"), strDeep);
}

TEST(JsonParseTest, BracketsInsideStringsAreNoNesting) {
  const std::string strText = std::string(1000, '[').append("\\\"").append(1000, '{');
  CPJsonParse parser;
  EXPECT_TRUE(parser.LoadBuffer(CPString("{\"a\":\"" + strText + "\"}")));
  // Many nodes side by side are not deep either.
  std::string strFlat = "[[]";
  for (int iNode = 0; iNode < 2000; ++iNode) {
    strFlat += ",{}";
  }
  EXPECT_TRUE(parser.LoadBuffer(CPString(strFlat + "]")));
}

}  // namespace
