#include "platform/log_escape.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

namespace {

using namespace std::string_view_literals;

std::string Escape(std::string_view svText) {
  std::string strLine;
  AppendEscapedLogText(svText, &strLine);
  return strLine;
}

TEST(LogEscapeTest, OrdinaryTextStays) {
  for (const std::string_view svText :
       {""sv, "qmlogcache step1 dataid[1]"sv, "\xC3\xA9 \xE4\xB8\xAD\xE6\x96\x87 \xF0\x9F\x98\x80"sv, "\xC2\xA0"sv,
        "\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"sv, "\xF4\x8F\xBF\xBF"sv, "\xE0\xA0\x80\xF0\x90\x80\x80"sv, " ~"sv}) {
    EXPECT_EQ(Escape(svText), svText);
  }
}

TEST(LogEscapeTest, WhatCouldEndOrHideALineIsEscaped) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"\n", "\\n"},
      {"\r", "\\r"},
      {"\t", "\\t"},
      {"\\", "\\\\"},
      {"\0"sv, "\\x00"},
      {"\x1B[2J", "\\x1b[2J"},
      {"\x7F", "\\x7f"},
      {"a\nb\r\nc", "a\\nb\\r\\nc"},
      {"\xC2\x85", "\\xc2\\x85"},                                // U+0085, next line
      {"\xC2\x9B", "\\xc2\\x9b"},                                // U+009B, one-byte escape sequence of terminals
      {"\xE2\x80\xA8", "\\xe2\\x80\\xa8"},                       // line separator
      {"\xE2\x80\xA9", "\\xe2\\x80\\xa9"},                       // paragraph separator
      {"\xE2\x80\xA7\xE2\x80\xAA", "\xE2\x80\xA7\xE2\x80\xAA"},  // their neighbours
  };
  for (const auto& [svText, svLine] : cases) {
    EXPECT_EQ(Escape(svText), svLine);
  }
}

TEST(LogEscapeTest, BytesOutsideWellFormedUtf8AreEscapedOneByOne) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"\x80", "\\x80"},
      {"\xFF", "\\xff"},
      {"\xC3", "\\xc3"},    // cut short at the end
      {"\xC3(", "\\xc3("},  // cut short in the middle
      {"\xE4\xB8", "\\xe4\\xb8"},
      {"\xE4\xB8\n", "\\xe4\\xb8\\n"},
      {"\xC0\x8A", "\\xc0\\x8a"},  // overlong line feed
      {"\xC1\xBF", "\\xc1\\xbf"},
      {"\xE0\x80\x8A", "\\xe0\\x80\\x8a"},
      {"\xF0\x80\x80\x8A", "\\xf0\\x80\\x80\\x8a"},
      {"\xED\xA0\x80", "\\xed\\xa0\\x80"},           // surrogate
      {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond U+10FFFF
      {"\xF5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"},
      {"\xFF\xC3\xA9", "\\xff\xC3\xA9"},  // the character after it stays
  };
  for (const auto& [svText, svLine] : cases) {
    EXPECT_EQ(Escape(svText), svLine);
  }
}

TEST(LogEscapeTest, AppendsToTheLine) {
  std::string strLine = "L3 ";
  AppendEscapedLogText("a\n", &strLine);
  EXPECT_EQ(strLine, "L3 a\\n");
}

TEST(LogEscapeTest, RandomBytesComeBackAndMakeOnePrintableLine) {
  // Bytes that mean something turn up more often than chance would have them.
  constexpr std::string_view kLikely = "\\nrtx\n\r\t0af\xC2\x85\xE2\x80\xA8\xA9\xF0\x9F\xED\xA0\xFF"sv;
  std::mt19937 random(20261121);
  std::string strAgain;
  for (int iRound = 0; iRound < 20000; ++iRound) {
    std::string strText(random() % 40, '\0');
    for (char& cByte : strText) {
      cByte = random() % 2 == 0 ? kLikely[random() % kLikely.size()] : static_cast<char>(random());
    }
    const std::string strLine = Escape(strText);
    for (const char cByte : strLine) {
      ASSERT_GE(static_cast<unsigned char>(cByte), 0x20);
      ASSERT_NE(cByte, '\x7F');
    }
    ASSERT_EQ(strLine.find("\xE2\x80\xA8"), std::string::npos);
    ASSERT_TRUE(UnescapeLogText(strLine, &strAgain));
    ASSERT_EQ(strAgain, strText);
  }
}

TEST(LogEscapeTest, AStrayBackslashIsNoEscapedText) {
  for (const std::string_view svLine : {"\\"sv, "a\\"sv, "\\a"sv, "\\x"sv, "\\x1"sv, "\\xg0"sv, "\\x0g"sv, "\\x1B"sv,
                                        "\\N"sv, "\\X00"sv, "\\\\\\"sv, "\\\0"sv}) {
    std::string strText = "before";
    EXPECT_FALSE(UnescapeLogText(svLine, &strText)) << svLine;
    EXPECT_TRUE(strText.empty());
  }
}

}  // namespace
