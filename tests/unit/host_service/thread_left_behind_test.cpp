// What main ends with when a thread had to be left behind.
#include "host/service/thread_left_behind.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

using ::testing::ExitedWithCode;
using ::testing::MatchesRegex;

constexpr int kStatus = 3;

// As main does, with something to be written out and something that must not be run under a thread.
void EndLikeMain(bool bLeftBehind) {
  static std::array<char, 4096> arrBuffer;
  std::setvbuf(stderr, arrBuffer.data(), _IOFBF, arrBuffer.size());
  std::atexit([] { std::fputs("a handler ran\n", stderr); });
  if (bLeftBehind) {
    NoteThreadLeftBehind();
  }
  std::fputs("written before\n", stderr);
  std::exit(ExitStatus(kStatus));
}

TEST(ThreadLeftBehindDeathTest, WithoutOneTheExitHandlersRun) {
  EXPECT_EXIT(EndLikeMain(false), ExitedWithCode(kStatus), MatchesRegex("written before\na handler ran\n"));
}

TEST(ThreadLeftBehindDeathTest, WithOneTheStreamsAreWrittenOutAndNoHandlerRuns) {
  EXPECT_EXIT(EndLikeMain(true), ExitedWithCode(kStatus), MatchesRegex("written before\n"));
}

}  // namespace
