#include "platform/ini_reader.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "temporary_directory.h"

namespace {

class IniReaderTest : public testing::Test {
 protected:
  int Parse(const std::string& strText) {
    m_vecKeys.clear();
    return wrap_ini_parse(m_directory.Write("file.conf", strText).c_str(), OnKey, this);
  }

  static int OnKey(void* pUser, const char* pszSection, const char* pszName, const char* pszValue, int iLine) {
    auto* pTest = static_cast<IniReaderTest*>(pUser);
    pTest->m_vecKeys.push_back(std::string(pszSection) + "|" + pszName + "|" + pszValue + "|" + std::to_string(iLine));
    if (std::string(pszValue) == "throw") {
      throw std::runtime_error("handler");
    }
    return std::string(pszValue) == "refuse" ? 0 : 1;
  }

  CTemporaryDirectory m_directory;
  std::vector<std::string> m_vecKeys;
};

using Keys = std::vector<std::string>;

TEST_F(IniReaderTest, CallsTheHandlerOncePerKeyInOrderWithItsLine) {
  EXPECT_EQ(Parse("first=1\n"
                  "[a]\n"
                  "; a comment\n"
                  "# another\n"
                  "\n"
                  "x = 1 2 \n"
                  "y: z\r\n"
                  "[b]\r\n"
                  "x=\n"
                  "x=two=three"),
            0);
  EXPECT_EQ(m_vecKeys, (Keys{"|first|1|1", "a|x|1 2|6", "a|y|z|7", "b|x||9", "b|x|two=three|10"}));
}

TEST_F(IniReaderTest, AnEmptyFileHasNoKeys) {
  EXPECT_EQ(Parse(""), 0);
  EXPECT_EQ(m_vecKeys, Keys{});
}

TEST_F(IniReaderTest, TellsTheFirstBadLineAndReadsOn) {
  EXPECT_EQ(Parse("[a]\nx=1\nneither key nor section\nalso bad\ny=2\n"), 3);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|1|2", "a|y|2|5"}));
}

TEST_F(IniReaderTest, ARefusedKeyIsABadLine) {
  EXPECT_EQ(Parse("[a]\nx=refuse\ny=2\n"), 2);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|refuse|2", "a|y|2|3"}));
}

TEST_F(IniReaderTest, AHandlerThatThrowsIsABadLine) {
  EXPECT_EQ(Parse("[a]\nx=throw\ny=2\n"), 2);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|throw|2", "a|y|2|3"}));
}

TEST_F(IniReaderTest, AnIndentedKeyIsAKey) {
  EXPECT_EQ(Parse("[a]\nx=1\n  y=2\n\tz=3\n  ; comment\n  [b]\n w=4\n"), 0);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|1|2", "a|y|2|3", "a|z|3|4", "b|w|4|7"}));
}

TEST_F(IniReaderTest, ALongPathIsReadWhole) {
  const std::string strPath = "/" + std::string(4000, 'p') + "/";
  EXPECT_EQ(Parse("[a]\nlogcachepath=" + strPath + "\nx=1\n"), 0);
  EXPECT_EQ(m_vecKeys, (Keys{"a|logcachepath|" + strPath + "|2", "a|x|1|3"}));
}

TEST_F(IniReaderTest, ALineBeyondTheLimitIsABadLineAndNotTwoKeys) {
  // Split anywhere, the rest of this line would be key after key.
  std::string strLine = "x=";
  while (strLine.size() < 100000) {
    strLine += "y=1 ";
  }
  EXPECT_EQ(Parse("[a]\nw=1\n" + strLine + "\nz=2\n"), 3);
  EXPECT_EQ(m_vecKeys, (Keys{"a|w|1|2", "a|z|2|4"}));
}

TEST_F(IniReaderTest, ALineWithAZeroByteIsABadLine) {
  EXPECT_EQ(Parse(std::string("[a]\nx=1\0 2\ny=2\n", 15)), 2);
  EXPECT_EQ(m_vecKeys, (Keys{"a|y|2|3"}));
}

TEST_F(IniReaderTest, KeysUnderABadHeaderBelongToNoSection) {
  EXPECT_EQ(Parse("[a]\nx=1\n[b\ny=2\n[c]\nz=3\n"), 3);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|1|2", "c|z|3|6"}));

  const std::string strLongest(49, 's');
  EXPECT_EQ(Parse("[" + strLongest + "]\nx=1\n[" + strLongest + "s]\ny=2\n"), 3);
  EXPECT_EQ(m_vecKeys, (Keys{strLongest + "|x|1|2"}));
}

TEST_F(IniReaderTest, AHeaderWhoseBracketStandsInACommentIsABadLine) {
  EXPECT_EQ(Parse("[a]\nx=1\n[b ; c]\ny=2\n[c]\nz=3\n"), 3);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|1|2", "c|z|3|6"}));
  EXPECT_EQ(Parse("[a]\nx=1\n[b\t;]\ny=2\n"), 3);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|1|2"}));
}

TEST_F(IniReaderTest, ASemicolonInsideANameOrBehindTheBracketIsNoTrouble) {
  EXPECT_EQ(Parse("[a;b]\nx=1\n[;c]\ny=2\n[d] ; ]\nz=3\n"), 0);
  EXPECT_EQ(m_vecKeys, (Keys{"a;b|x|1|2", ";c|y|2|4", "d|z|3|6"}));
}

TEST_F(IniReaderTest, AByteOrderMarkIsSkipped) {
  EXPECT_EQ(Parse("\xEF\xBB\xBF[a]\nx=1\n"), 0);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|1|2"}));
  EXPECT_EQ(Parse(" \xEF\xBB\xBF \t[a]\nx=1\n"), 0);
  EXPECT_EQ(m_vecKeys, (Keys{"a|x|1|2"}));
  EXPECT_EQ(Parse("\xEF\xBB\xBFx=1\n"), 0);
  EXPECT_EQ(m_vecKeys, (Keys{"|x|1|1"}));
}

TEST_F(IniReaderTest, ABadHeaderBehindAByteOrderMarkIsABadLine) {
  const std::string strTooLong(50, 's');
  for (const std::string& strHeader : {std::string("[a"), std::string(" [a ; ]"), "[" + strTooLong + "]"}) {
    EXPECT_EQ(Parse("\xEF\xBB\xBF" + strHeader + "\nx=1\n[b]\ny=2\n"), 1) << strHeader;
    EXPECT_EQ(m_vecKeys, (Keys{"b|y|2|4"})) << strHeader;
  }
}

TEST_F(IniReaderTest, WhatCannotBeReadIsMinusOne) {
  EXPECT_EQ(wrap_ini_parse(m_directory.Path("missing").c_str(), OnKey, this), -1);
  EXPECT_EQ(wrap_ini_parse(m_directory.Path().c_str(), OnKey, this), -1);
  EXPECT_EQ(wrap_ini_parse(nullptr, OnKey, this), -1);
  EXPECT_EQ(wrap_ini_parse(m_directory.Write("file", "x=1\n").c_str(), nullptr, this), -1);
}

}  // namespace
