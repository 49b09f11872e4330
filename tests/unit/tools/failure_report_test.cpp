#include "tools/qmsend/failure_report.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/qmsend/status_text.h"

namespace {

using Cause = CFailureReport::Cause;

class FailureReportTest : public ::testing::Test {
 protected:
  // Uses up the records that are named one by one.
  void NameAHundred() {
    for (uint64_t i = 1; i <= 100; ++i) {
      m_report.Add(9, i, Cause::NotSent, 0, "", false);
    }
    m_vecLines.clear();
  }
  void Refuse(uint64_t u64Number, uint32_t uStatus = 0xA0010014) {
    m_report.Add(0, u64Number, Cause::Refused, uStatus, "data", false);
  }

  std::vector<std::string> m_vecLines;
  CFailureReport m_report{[this](const std::string& strLine) { m_vecLines.push_back(strLine); },
                          [](size_t uSource) { return "file" + std::to_string(uSource); }};
};

TEST_F(FailureReportTest, NamesSourceRecordStatusAndFirstBytes) {
  m_report.Add(2, 17, Cause::Refused, 0xA0010014, "first\tbytes", false);
  ASSERT_EQ(m_vecLines.size(), 1U);
  EXPECT_EQ(m_vecLines[0], "file2:17: refused, status 0xA0010014 (too many records in memory): \"first\\x09bytes\"");
}

TEST_F(FailureReportTest, NamesAtMostAHundredOneByOneAndTheRestAsRanges) {
  for (uint64_t i = 1; i <= 5000; ++i) {
    Refuse(i);
  }
  EXPECT_EQ(m_vecLines.size(), 100U);
  m_report.Finish();
  ASSERT_EQ(m_vecLines.size(), 101U);
  EXPECT_EQ(m_vecLines[100].rfind("file0:101-5000: refused, status 0xA0010014", 0), 0U) << m_vecLines[100];
  EXPECT_EQ(m_report.Total(), 5000U);
  EXPECT_EQ(m_report.Count(Cause::Refused), 5000U);
}

TEST_F(FailureReportTest, RangesGrowTogetherInAnyOrder) {
  NameAHundred();
  for (const uint64_t u64Number : {5U, 3U, 1U, 4U, 2U, 9U}) {
    Refuse(u64Number);
  }
  m_report.Finish();
  ASSERT_EQ(m_vecLines.size(), 2U);
  EXPECT_EQ(m_vecLines[0].rfind("file0:1-5: ", 0), 0U) << m_vecLines[0];
  EXPECT_EQ(m_vecLines[1].rfind("file0:9: ", 0), 0U) << m_vecLines[1];
}

TEST_F(FailureReportTest, OtherStatusesAndSourcesAreOtherRanges) {
  NameAHundred();
  Refuse(1);
  Refuse(2, 0xA0010002);
  m_report.Add(1, 3, Cause::NoAnswer, 0, "", false);
  m_report.Finish();
  ASSERT_EQ(m_vecLines.size(), 3U);
  EXPECT_EQ(m_vecLines[2], "file1:3: no answer, it may have been taken or not");
}

TEST_F(FailureReportTest, ARecordWithAZeroByteIsNamedAndCounted) {
  m_report.Add(0, 7, Cause::ZeroByte, 0, std::string_view("a\0b", 3), false);
  ASSERT_EQ(m_vecLines.size(), 1U);
  EXPECT_EQ(m_vecLines[0], "file0:7: not sent, it holds a zero byte, where the component would cut it: \"a\\x00b\"");
  EXPECT_EQ(m_report.Count(Cause::ZeroByte), 1U);
  EXPECT_EQ(m_report.Total(), 1U);
}

TEST_F(FailureReportTest, EveryRecordIsNamedHoweverScattered) {
  NameAHundred();
  constexpr uint64_t kCount = 20000;
  for (uint64_t i = 0; i < kCount; ++i) {
    Refuse(1 + 2 * i);
  }
  m_report.Finish();
  ASSERT_EQ(m_vecLines.size(), kCount);
  for (uint64_t i = 0; i < kCount; ++i) {
    ASSERT_EQ(m_vecLines[i].rfind("file0:" + std::to_string(1 + 2 * i) + ": ", 0), 0U);
  }
}

TEST(ExcerptTest, EscapesWhatIsNotPlain) {
  EXPECT_EQ(Excerpt(std::string("a\"b\\\n\0\x1B\xC3", 8), false), "\"a\\\"b\\\\\\x0A\\x00\\x1B\\xC3\"");
}

TEST(ExcerptTest, SaysThatThereIsMore) {
  EXPECT_EQ(Excerpt(std::string(49, 'x'), false), "\"" + std::string(48, 'x') + "\"...");
  EXPECT_EQ(Excerpt(std::string(48, 'x'), false), "\"" + std::string(48, 'x') + "\"");
  EXPECT_EQ(Excerpt("x", true), "\"x\"...");
}

}  // namespace
