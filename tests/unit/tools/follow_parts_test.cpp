// What qmsend --follow decides without a host: names of rotated files, the position's form, what is settled.
#include <gtest/gtest.h>

#include "tools/qmsend/follow/position_file.h"
#include "tools/qmsend/follow/rotated_files.h"
#include "tools/qmsend/follow/unsettled_lines.h"

namespace {

TEST(RotationSuffixTest, KnowsTheNamesThatRotationGives) {
  for (const char* pszSuffix : {".1", ".27", "-20260131", ".2026-01-31", "-20260131-1769817600", ".old", ".1.gz",
                                "-20260131.xz", ".old.zst", ".2026-01-31T12:00:00"}) {
    EXPECT_TRUE(ParseRotationSuffix(pszSuffix)) << pszSuffix;
  }
  for (const char* pszSuffix : {"", ".", ".gz", ".errors", ".1a", "1", "-", ".position", ".new", "~", ".1~", "_1"}) {
    EXPECT_FALSE(ParseRotationSuffix(pszSuffix)) << pszSuffix;
  }
}

TEST(RotationSuffixTest, TellsNumbersFromDatesAndCompressedFromReadable) {
  EXPECT_EQ(ParseRotationSuffix(".3")->number, 3U);
  EXPECT_EQ(ParseRotationSuffix(".3.gz")->number, 3U);
  EXPECT_TRUE(ParseRotationSuffix(".3.gz")->bCompressed);
  EXPECT_FALSE(ParseRotationSuffix(".3")->bCompressed);
  EXPECT_FALSE(ParseRotationSuffix(".20260131")->number);
  EXPECT_FALSE(ParseRotationSuffix("-3")->number);
  EXPECT_FALSE(ParseRotationSuffix(".99999999999999999999999999")->number);
}

FollowPosition SomePosition() {
  FollowPosition position;
  position.strLog = "/var/log/with\nnewline";
  position.u64Device = 2049;
  position.u64Inode = 18446744073709551615U;
  position.u64Offset = 1234567;
  position.strHead = std::string("\0\xFF head", 7);
  position.strBefore = "before\n";
  return position;
}

TEST(PositionTest, WhatIsWrittenIsRead) {
  const FollowPosition position = SomePosition();
  FollowPosition read;
  ASSERT_TRUE(ParsePosition(FormatPosition(position), read));
  EXPECT_EQ(read.strLog, position.strLog);
  EXPECT_EQ(read.u64Device, position.u64Device);
  EXPECT_EQ(read.u64Inode, position.u64Inode);
  EXPECT_EQ(read.u64Offset, position.u64Offset);
  EXPECT_EQ(read.strHead, position.strHead);
  EXPECT_EQ(read.strBefore, position.strBefore);
}

TEST(PositionTest, APositionThatWasCutAnywhereIsNone) {
  const std::string strText = FormatPosition(SomePosition());
  FollowPosition read;
  for (size_t i = 0; i < strText.size(); ++i) {
    EXPECT_FALSE(ParsePosition(strText.substr(0, i), read)) << i;
  }
}

TEST(PositionTest, OffsetsThatCannotBeAreRefused) {
  FollowPosition position = SomePosition();
  FollowPosition read;
  position.u64Offset = 3;  // fewer bytes than stand before it
  EXPECT_FALSE(ParsePosition(FormatPosition(position), read));
  position.u64Offset = uint64_t{1} << 63U;
  EXPECT_FALSE(ParsePosition(FormatPosition(position), read));
}

LogPlace At(uint64_t u64Offset) {
  return {nullptr, u64Offset, {}};
}

TEST(UnsettledLinesTest, TheMarkStaysBeforeTheFirstLineThatIsNotSettled) {
  CUnsettledLines lines;
  const uint64_t u64First = lines.Add(At(10));
  const uint64_t u64Second = lines.Add(At(20));
  const uint64_t u64Third = lines.Add(At(30));
  lines.Settle(u64Second);
  EXPECT_EQ(lines.Mark().u64Offset, 0U);
  EXPECT_FALSE(lines.HasMoved());
  lines.Settle(u64First);
  EXPECT_EQ(lines.Mark().u64Offset, 20U);
  EXPECT_EQ(lines.SettledSinceNote(), 2U);
  EXPECT_EQ(lines.BehindNote(), 3U);
  lines.Noted();
  EXPECT_FALSE(lines.HasMoved());
  EXPECT_EQ(lines.BehindNote(), 1U);
  lines.Settle(u64Third);
  EXPECT_EQ(lines.Mark().u64Offset, 30U);
}

TEST(UnsettledLinesTest, LinesThatNeedNoSendingMoveTheMarkWithTheirNeighbours) {
  CUnsettledLines lines;
  lines.Skip(At(5));
  EXPECT_EQ(lines.Mark().u64Offset, 5U);
  EXPECT_TRUE(lines.HasMoved());
  EXPECT_EQ(lines.BehindNote(), 0U);
  const uint64_t u64First = lines.Add(At(10));
  for (uint64_t u64End = 11; u64End < 100000; ++u64End) {
    lines.Skip(At(u64End));
  }
  EXPECT_EQ(lines.BehindNote(), 2U);
  const uint64_t u64Last = lines.Add(At(200000));
  EXPECT_EQ(lines.Mark().u64Offset, 5U);
  lines.Settle(u64First);
  EXPECT_EQ(lines.Mark().u64Offset, 99999U);
  lines.Settle(u64Last);
  EXPECT_EQ(lines.Mark().u64Offset, 200000U);
}

}  // namespace
