#include "platform/cpstring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace std::string_view_literals;

TEST(CPStringTest, IsEmptyFromNothing) {
  for (const CPString& strEmpty : {CPString(), CPString(""), CPString(static_cast<const char*>(nullptr)),
                                   CPString(nullptr, 0), CPString(std::string_view())}) {
    EXPECT_TRUE(strEmpty.IsEmpty());
    EXPECT_EQ(strEmpty.GetLength(), 0u);
    EXPECT_STREQ(strEmpty.c_str(), "");
  }
}

TEST(CPStringTest, HoldsZerosAndIsZeroTerminated) {
  const CPString strText("a\0b"sv);
  EXPECT_EQ(strText.GetLength(), 3u);
  EXPECT_EQ(strText.View(), "a\0b"sv);
  EXPECT_EQ(strText.c_str()[3], '\0');
  EXPECT_NE(strText, CPString("a"));
}

TEST(CPStringTest, CopiesShareTheirBytesAndOutliveTheOriginal) {
  CPString strCopy;
  {
    const CPString strOriginal("some text");
    strCopy = strOriginal;
    EXPECT_EQ(static_cast<const void*>(strCopy.c_str()), static_cast<const void*>(strOriginal.c_str()));
  }
  EXPECT_STREQ(strCopy.c_str(), "some text");
}

TEST(CPStringTest, ChangingACopyLeavesTheOriginal) {
  const CPString strOriginal("one two one");
  CPString strCopy = strOriginal;
  EXPECT_EQ(strCopy.Replace("one", "1"), 2u);
  EXPECT_STREQ(strCopy.c_str(), "1 two 1");
  EXPECT_STREQ(strOriginal.c_str(), "one two one");
}

TEST(CPStringTest, SurvivesAssignmentToItself) {
  CPString strText("text");
  CPString& strAlias = strText;
  strText = strAlias;
  EXPECT_STREQ(strText.c_str(), "text");
}

TEST(CPStringTest, MovedFromIsEmpty) {
  CPString strFrom("text");
  const CPString strTo(std::move(strFrom));
  EXPECT_STREQ(strTo.c_str(), "text");
  EXPECT_TRUE(strFrom.IsEmpty());  // NOLINT(bugprone-use-after-move): what this test is about
}

TEST(CPStringTest, AllocateGivesBytesToFill) {
  char* pBytes = nullptr;
  const CPString strText = CPString::Allocate(4, &pBytes);
  ASSERT_NE(pBytes, nullptr);
  std::memcpy(pBytes, "abcd", 4);
  EXPECT_STREQ(strText.c_str(), "abcd");

  EXPECT_TRUE(CPString::Allocate(0, &pBytes).IsEmpty());
  EXPECT_EQ(pBytes, nullptr);
}

TEST(CPStringTest, FormatReplacesTheTextAndMayReadIt) {
  CPString strText("x");
  strText.Format("%s-%05d-%s", strText.c_str(), 42, "y");
  EXPECT_STREQ(strText.c_str(), "x-00042-y");

  const std::string strLong(100000, 'l');
  strText.Format("%s", strLong.c_str());
  EXPECT_EQ(strText.View(), strLong);

  strText.Format("%s", "");
  EXPECT_TRUE(strText.IsEmpty());
}

TEST(CPStringTest, LeftAndRightTakeAtMostWhatIsThere) {
  const CPString strText("abcdef");
  EXPECT_STREQ(strText.Left(2).c_str(), "ab");
  EXPECT_STREQ(strText.Right(2).c_str(), "ef");
  EXPECT_STREQ(strText.Left(0).c_str(), "");
  EXPECT_STREQ(strText.Right(0).c_str(), "");
  EXPECT_EQ(strText.Left(6), strText);
  EXPECT_EQ(strText.Right(7), strText);
}

TEST(CPStringTest, ReplaceDoesNotLookAtWhatItPutIn) {
  CPString strText("'it''s'");
  EXPECT_EQ(strText.Replace("'", "''"), 4u);
  EXPECT_STREQ(strText.c_str(), "''it''''s''");
}

TEST(CPStringTest, ReplaceTakesMatchesFromLeftToRight) {
  CPString strText("aaaaa");
  EXPECT_EQ(strText.Replace("aa", "b"), 2u);
  EXPECT_STREQ(strText.c_str(), "bba");
}

TEST(CPStringTest, ReplaceMayEmptyTheText) {
  CPString strText("abab");
  EXPECT_EQ(strText.Replace("ab", ""), 2u);
  EXPECT_TRUE(strText.IsEmpty());
}

TEST(CPStringTest, ReplaceOfNothingChangesNothing) {
  CPString strText("abc");
  EXPECT_EQ(strText.Replace("", "x"), 0u);
  EXPECT_EQ(strText.Replace("d", "x"), 0u);
  EXPECT_STREQ(strText.c_str(), "abc");
}

TEST(CPStringTest, OrdersAsUnsignedBytes) {
  EXPECT_LT(CPString("a"), CPString("b"));
  EXPECT_LT(CPString("a"), CPString("aa"));
  EXPECT_LT(CPString(), CPString("a"));
  EXPECT_LT(CPString("z"), CPString("\xC3\xA9"));
}

TEST(CPStringTest, CopiesMayBeUsedInDifferentThreads) {
  const CPString strShared("shared");
  std::vector<std::thread> vecThreads;
  for (int iThread = 0; iThread < 4; ++iThread) {
    vecThreads.emplace_back([strCopy = strShared] {
      for (int iRound = 0; iRound < 10000; ++iRound) {
        const CPString strAgain = strCopy;  // NOLINT(performance-unnecessary-copy-initialization): counts references
        ASSERT_EQ(strAgain.GetLength(), 6u);
      }
    });
  }
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  EXPECT_STREQ(strShared.c_str(), "shared");
}

}  // namespace
