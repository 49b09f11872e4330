// What answers mean, and how long a server may ask to wait.
#include <gtest/gtest.h>

#include <set>

#include "host/link/http/http_answer.h"
#include "host/link/http/retry_after.h"

namespace {

using std::chrono::seconds;

HttpAnswer Status(long i64Status) {
  HttpAnswer answer;
  answer.bAnswered = answer.bSent = true;
  answer.i64Status = i64Status;
  return answer;
}

TEST(HttpAnswerTest, EveryStatusHasTheOutcomeOfTheTable) {
  const std::set<long> setRefusals = {400, 413, 422};
  for (long i64Status = 0; i64Status <= 1100; ++i64Status) {
    const AnswerKind expected = i64Status >= 200 && i64Status < 300 ? AnswerKind::Delivered
                                : setRefusals.contains(i64Status)   ? AnswerKind::Refused
                                                                    : AnswerKind::LinkTrouble;
    EXPECT_EQ(JudgeAnswer(Status(i64Status)), expected) << i64Status;
  }
}

TEST(HttpAnswerTest, OnlyARequestThatWasSentTimesOut) {
  HttpAnswer answer;
  EXPECT_EQ(JudgeAnswer(answer), AnswerKind::LinkTrouble);
  answer.bTimedOut = true;
  EXPECT_EQ(JudgeAnswer(answer), AnswerKind::LinkTrouble);
  answer.bSent = true;
  EXPECT_EQ(JudgeAnswer(answer), AnswerKind::TimedOut);
  answer.bTimedOut = false;
  EXPECT_EQ(JudgeAnswer(answer), AnswerKind::LinkTrouble);
}

TEST(HttpAnswerTest, AStatusWithoutAnAnswerCountsForNothing) {
  HttpAnswer answer = Status(200);
  answer.bAnswered = false;
  EXPECT_EQ(JudgeAnswer(answer), AnswerKind::LinkTrouble);
  answer.i64Status = 400;
  EXPECT_EQ(JudgeAnswer(answer), AnswerKind::LinkTrouble);
}

TEST(HttpAnswerTest, IsToldInWords) {
  HttpAnswer answer = Status(503);
  EXPECT_EQ(DescribeAnswer(answer), "HTTP status 503");
  answer.retryAfter = seconds(30);
  EXPECT_EQ(DescribeAnswer(answer), "HTTP status 503, to be tried again after 30 s");
  answer.bAnswered = false;
  EXPECT_EQ(DescribeAnswer(answer), "the request failed");
  answer.strError = "Connection refused";
  EXPECT_EQ(DescribeAnswer(answer), "Connection refused");
}

// Sun, 06 Nov 1994 08:49:37 GMT.
constexpr time_t kDate = 784111777;

TEST(RetryAfterTest, ReadsSeconds) {
  EXPECT_EQ(ParseRetryAfter("0", kDate), seconds(0));
  EXPECT_EQ(ParseRetryAfter("120", kDate), seconds(120));
  EXPECT_EQ(ParseRetryAfter("00007", kDate), seconds(7));
}

TEST(RetryAfterTest, ReadsADateInEachOfItsForms) {
  for (const char* pszDate :
       {"Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994"}) {
    EXPECT_EQ(ParseRetryAfter(pszDate, kDate - 90), seconds(90)) << pszDate;
    EXPECT_EQ(ParseRetryAfter(pszDate, kDate), seconds(0)) << pszDate;
    EXPECT_EQ(ParseRetryAfter(pszDate, kDate + 90), seconds(0)) << pszDate;
  }
}

TEST(RetryAfterTest, IsBounded) {
  EXPECT_EQ(ParseRetryAfter("3600", kDate), kLongestRetryAfter);
  EXPECT_EQ(ParseRetryAfter("3601", kDate), kLongestRetryAfter);
  EXPECT_EQ(ParseRetryAfter("99999999999999999999999999999999", kDate), kLongestRetryAfter);
  EXPECT_EQ(ParseRetryAfter("Fri, 06 Nov 2099 08:49:37 GMT", kDate), kLongestRetryAfter);
}

TEST(RetryAfterTest, AnythingElseIsNoWish) {
  for (const char* pszValue : {"", "-1", "+5", "1.5", "1e3", "5 s", "soon", "tomorrow", "0x10", " ", "12:00:00",
                               "Sun, 99 Nov 1994 08:49:37 GMT", "\xff\xfe"}) {
    EXPECT_EQ(ParseRetryAfter(pszValue, kDate), std::nullopt) << pszValue;
  }
}

}  // namespace
