#include "host/link/tagged_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr char kGuid[] = "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358";

std::string Text(const std::string& strProduct, const std::string& strCombo, const std::string& strMessage,
                 const std::string& strDataId = "68a1b2c300000001", const std::string& strPriv = "12",
                 const std::string& strMsgType = "1", const std::string& strGuid = kGuid) {
  return "<version=1><dataid=" + strDataId + "><priv=" + strPriv + "><msgtype=" + strMsgType + "><guid=" + strGuid +
         "><product=" + strProduct + "><combo=" + strCombo + "><end=1><msg=" + strMessage + ">";
}

// Parses a copy of exactly the text's size on the heap, so that a sanitizer sees a read past its end.
bool Parse(const std::string& strText, TaggedText& out, std::unique_ptr<char[]>& pCopy) {
  pCopy.reset(new char[strText.size()]);
  std::memcpy(pCopy.get(), strText.data(), strText.size());
  return ParseTaggedText(std::string_view(pCopy.get(), strText.size()), out);
}

bool Parses(const std::string& strText) {
  TaggedText tags;
  std::unique_ptr<char[]> pCopy;
  return Parse(strText, tags, pCopy);
}

struct SplitCase {
  const char* pszName;
  std::string strProduct, strCombo, strMessage;
};

class FaithfulSplitTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(FaithfulSplitTest, CarriesEveryFieldAsItWasSent) {
  const SplitCase& param = GetParam();
  TaggedText tags;
  std::unique_ptr<char[]> pCopy;
  ASSERT_TRUE(Parse(Text(param.strProduct, param.strCombo, param.strMessage), tags, pCopy));
  EXPECT_EQ(tags.u64DataId, 0x68a1b2c300000001U);
  EXPECT_EQ(tags.iPriv, 12);
  EXPECT_EQ(tags.iMsgType, 1);
  EXPECT_EQ(tags.svGuid, kGuid);
  EXPECT_EQ(tags.svProduct, param.strProduct);
  EXPECT_EQ(tags.svCombo, param.strCombo);
  EXPECT_EQ(tags.svMessage, param.strMessage);
}

INSTANTIATE_TEST_SUITE_P(
    TaggedTextTest, FaithfulSplitTest,
    ::testing::Values(SplitCase{"Plain", "prod", "combo", "data"}, SplitCase{"AllEmpty", "", "", ""},
                      SplitCase{"EmptyNames", "", "", "data"}, SplitCase{"EmptyMessage", "p", "c", ""},
                      SplitCase{"LongestNames", std::string(64, 'p'), std::string(64, 'c'), "d"},
                      SplitCase{"MessageOfBrackets", "p", "c", ">>>><<<<"},
                      SplitCase{"MessageWithTheMessageTag", "p", "c", "a><end=1><msg=b"},
                      SplitCase{"MessageOfTheMessageTag", "", "", "><end=1><msg="},
                      SplitCase{"MessageWithAComboTag", "", "", "><combo=x><end=1><msg=y"},
                      SplitCase{"MessageIsAWholeText", "p", "c", Text("a", "b", "inner")},
                      SplitCase{"ProductOfBrackets", "><><>", "><>", "d"},
                      SplitCase{"ProductEndsInABracket", "p>", "c>", "d"},
                      SplitCase{"ProductWithGuidTag", "a><guid=x><product=y", "c", "d"},
                      SplitCase{"ProductWithAlmostAComboTag", "a><combo", "><comb0=", "d"},
                      SplitCase{"ComboWithAComboTag", "p", "a><combo=b", "d"},
                      SplitCase{"ComboWithAlmostAMessageTag", "p", "a><end=1><msg", "d"},
                      SplitCase{"ProductWithAComboTagAndALongCombo", "a><combo=b", std::string(64, 'c'), "d"},
                      SplitCase{"ProductWithTwoComboTagsAndALongCombo", "><combo=><combo=", std::string(60, 'c'), "d"},
                      SplitCase{"ZeroBytes", std::string("p\0q", 3), std::string("\0", 1), std::string("\0d\0", 3)},
                      SplitCase{"BytesThatAreNoText", "\xff\xfe", "\xc0\x80", "\xed\xa0\x80"},
                      SplitCase{"LineBreaks", "p\r\n", "\n", "a\nb\r\n"}),
    [](const auto& caseInfo) { return caseInfo.param.pszName; });

TEST(TaggedTextTest, MovesTheTailOfAProductWithAComboTagToTheCombo) {
  TaggedText tags;
  std::unique_ptr<char[]> pCopy;
  ASSERT_TRUE(Parse(Text("a><combo=b", "c", "d"), tags, pCopy));
  EXPECT_EQ(tags.svProduct, "a");
  EXPECT_EQ(tags.svCombo, "b><combo=c");
  EXPECT_EQ(tags.svMessage, "d");
}

TEST(TaggedTextTest, NeverShortensAMessageForANameWithTheMessageTag) {
  TaggedText tags;
  std::unique_ptr<char[]> pCopy;
  ASSERT_TRUE(Parse(Text("p", "a><end=1><msg=b", "d"), tags, pCopy));
  EXPECT_EQ(tags.svCombo, "a");
  EXPECT_EQ(tags.svMessage, "b><end=1><msg=d");
  ASSERT_TRUE(Parse(Text("x><combo=y><end=1><msg=z", "c", "d"), tags, pCopy));
  EXPECT_EQ(tags.svProduct, "x");
  EXPECT_EQ(tags.svMessage, "z><combo=c><end=1><msg=d");
}

// All names that can be put together from a few fragments, within their bound.
TEST(TaggedTextTest, KeepsTheWholeMessageWhateverTheNamesAre) {
  const std::vector<std::string> vecFragments = {
      "",        "><combo=", "><end=1><msg=",  ">", "<", "a", std::string(40, 'x'), "><product=", "><end=1>",
      "<combo=", "><combo",  "><end=1><msg=M>"};
  std::vector<std::string> vecNames;
  for (const auto& strA : vecFragments) {
    for (const auto& strB : vecFragments) {
      for (const auto& strC : vecFragments) {
        if (strA.size() + strB.size() + strC.size() <= 64) {
          vecNames.push_back(strA + strB + strC);
        }
      }
    }
  }
  const std::string strMessage = "first><combo=c><end=1><msg=second";
  TaggedText tags;
  for (const auto& strProduct : vecNames) {
    for (size_t i = 0; i < vecNames.size(); i += 61) {
      const std::string strText = Text(strProduct, vecNames[i], strMessage);
      ASSERT_TRUE(ParseTaggedText(strText, tags)) << strText;
      ASSERT_TRUE(tags.svMessage.ends_with(strMessage)) << strText;
      ASSERT_LE(tags.svProduct.size(), 64U);
      ASSERT_LE(tags.svCombo.size(), 64U);
      // No byte is lost: the fields and the tags between them make up the text.
      ASSERT_EQ(Text(std::string(tags.svProduct), std::string(tags.svCombo), std::string(tags.svMessage)), strText);
    }
  }
}

TEST(TaggedTextTest, RefusesEveryTruncation) {
  const std::string strText = Text("prod", "combo", "some data");
  for (size_t uLength = 0; uLength < strText.size(); ++uLength) {
    EXPECT_FALSE(Parses(strText.substr(0, uLength))) << uLength;
  }
  EXPECT_TRUE(Parses(strText));
}

TEST(TaggedTextTest, RefusesEveryMissingFirstPart) {
  const std::string strText = Text("prod", "combo", "some data");
  for (size_t uStart = 1; uStart < strText.size(); ++uStart) {
    EXPECT_FALSE(Parses(strText.substr(uStart))) << uStart;
  }
}

TEST(TaggedTextTest, RefusesAnyChangedByteOfTheHeaderTags) {
  const std::string strText = Text("prod", "combo", "d");
  const std::string strValues = Text(std::string(4, '\1'), std::string(5, '\1'), "\1", std::string(16, '\1'), "\1\1",
                                     "\1", std::string(36, '\1'));
  ASSERT_EQ(strText.size(), strValues.size());
  for (size_t i = 0; i < strText.size(); ++i) {
    if (strValues[i] != '\1') {
      std::string strChanged = strText;
      strChanged[i] = static_cast<char>(strChanged[i] ^ 0x20);
      EXPECT_FALSE(Parses(strChanged)) << strChanged;
    }
  }
}

TEST(TaggedTextTest, ReadsTheLimitsOfEveryNumber) {
  TaggedText tags;
  std::unique_ptr<char[]> pCopy;
  ASSERT_TRUE(Parse(Text("", "", "", "ffffffffffffffff", "-2147483648", "2147483647"), tags, pCopy));
  EXPECT_EQ(tags.u64DataId, 0xffffffffffffffffU);
  EXPECT_EQ(tags.iPriv, -2147483647 - 1);
  EXPECT_EQ(tags.iMsgType, 2147483647);
  ASSERT_TRUE(Parse(Text("", "", "", "1", "0", "-1"), tags, pCopy));
  EXPECT_EQ(tags.u64DataId, 1U);
  EXPECT_EQ(tags.iPriv, 0);
  EXPECT_EQ(tags.iMsgType, -1);
}

TEST(TaggedTextTest, RefusesOtherSpellingsOfADataId) {
  for (const char* pszId : {"", "0", "00", "01", "A", "1F", "0x1", "g", "-1", "+1", " 1", "1 ", "1\n",
                            "10000000000000000", "11111111111111111111111111"}) {
    EXPECT_FALSE(Parses(Text("", "", "d", pszId))) << pszId;
  }
  EXPECT_FALSE(Parses(Text("", "", "d", std::string("1\0", 2))));
}

TEST(TaggedTextTest, RefusesOtherSpellingsOfANumber) {
  for (const char* pszNumber : {"", "-", "--1", "+1", "01", "00", "-0", "-01", " 1", "1 ", "1.0", "1e1", "0x1", "a",
                                "2147483648", "-2147483649", "99999999999", "111111111111111111111"}) {
    EXPECT_FALSE(Parses(Text("", "", "d", "1", pszNumber))) << pszNumber;
    EXPECT_FALSE(Parses(Text("", "", "d", "1", "1", pszNumber))) << pszNumber;
  }
}

TEST(TaggedTextTest, RefusesAGuidOfAnotherLength) {
  EXPECT_FALSE(Parses(Text("", "", "d", "1", "1", "1", std::string(35, 'A'))));
  EXPECT_FALSE(Parses(Text("", "", "d", "1", "1", "1", std::string(37, 'A'))));
  EXPECT_FALSE(Parses(Text("", "", "d", "1", "1", "1", "")));
}

TEST(TaggedTextTest, RefusesNamesLongerThanTheyCanBe) {
  EXPECT_FALSE(Parses(Text(std::string(65, 'p'), "c", "d")));
  EXPECT_FALSE(Parses(Text("p", std::string(65, 'c'), "d")));
}

}  // namespace
