#include "tools/qmcache/time_text.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

constexpr int64_t kNow = 1000000000;  // 2001-09-09T01:46:40Z

std::optional<int64_t> Since(const std::string& strText) {
  int64_t i64Second = 0;
  return ReadSince(strText, kNow, i64Second) ? std::optional(i64Second) : std::nullopt;
}

TEST(TimeTextTest, IsUtc) {
  EXPECT_EQ(TimeText(kNow), "2001-09-09T01:46:40Z");
  EXPECT_EQ(TimeText(0), "1970-01-01T00:00:00Z");
}

TEST(TimeTextTest, TakesDurations) {
  EXPECT_EQ(Since("90s"), kNow - 90);
  EXPECT_EQ(Since("15m"), kNow - 15 * 60);
  EXPECT_EQ(Since("2h"), kNow - 2 * 3600);
  EXPECT_EQ(Since("3d"), kNow - 3 * 86400);
  EXPECT_EQ(Since("1w"), kNow - 7 * 86400);
  EXPECT_EQ(Since("0s"), kNow);
}

TEST(TimeTextTest, TakesTimes) {
  for (const char* pszText : {"2001-09-09T01:46:40", "2001-09-09 01:46:40", "2001-09-09T01:46:40Z",
                              "2001-09-09T01:46:40.999999Z", "2001-09-09T03:46:40+02:00", "2001-09-08T20:46:40-0500"}) {
    EXPECT_EQ(Since(pszText), kNow) << pszText;
  }
  EXPECT_EQ(Since("2001-09-09T01:46"), kNow - 40);
  EXPECT_EQ(Since("2001-09-09"), kNow - 6400);
}

TEST(TimeTextTest, RefusesWhatIsNeither) {
  for (const char* pszText : {"", "h", "2", "2y", "-2h", "+2h", "2 h", "2h ", "99999999999s", "4294967295w", "now",
                              "2001-13-01", "2001-09-09T01:46:40X", "2001-09-09T01:46:40Z ", "01:46"}) {
    EXPECT_EQ(Since(pszText), std::nullopt) << pszText;
  }
}

}  // namespace
