// What qmsend --follow decides without a host: names of rotated files, the position's form, what is settled.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tools/qmsend/follow/log_tail.h"
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

class LogTailTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string strPattern = (std::filesystem::temp_directory_path() / "qmtail.XXXXXX").string();
    ASSERT_NE(::mkdtemp(strPattern.data()), nullptr);
    m_strDirectory = strPattern;
    m_strLog = m_strDirectory + "/log";
  }
  void TearDown() override { std::filesystem::remove_all(m_strDirectory); }

  static void Append(const std::string& strPath, const std::string& strText) {
    std::ofstream(strPath, std::ios::binary | std::ios::app) << strText;
  }

  // As if its last write had been long ago.
  static void Age(const std::string& strPath, time_t iSeconds) {
    const timespec aTimes[2] = {{time(nullptr) - iSeconds, 0}, {time(nullptr) - iSeconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, strPath.c_str(), aTimes, 0), 0);
  }

  std::vector<std::string> All(CLogTail& tail) {
    std::vector<std::string> vecLines;
    Record line;
    do {
      while (tail.Next(line, m_end)) {
        vecLines.emplace_back(line.svBytes);
      }
    } while (tail.Read());
    return vecLines;
  }

  using Lines = std::vector<std::string>;
  std::string m_strDirectory;
  std::string m_strLog;
  std::string m_strTold;
  LogPlace m_end;
  CLogTail::Tell m_fnTell = [this](const std::string& strLine) { m_strTold += strLine + "\n"; };
};

TEST_F(LogTailTest, PlacesAreWhereLinesEnd) {
  Append(m_strLog, "one\ntwo\npart");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  EXPECT_EQ(All(tail), (Lines{"one", "two"}));
  EXPECT_EQ(m_end.u64Offset, 8U);
  EXPECT_EQ(m_end.strBefore, "two\n");
  Append(m_strLog, "ial\n");
  EXPECT_EQ(All(tail), (Lines{"partial"}));
  EXPECT_EQ(m_end.u64Offset, 16U);
}

TEST_F(LogTailTest, AFileWithTheSameNumberAndBeginningIsNotTakenForTheOneThatWasRead) {
  Append(m_strLog, "# head\nold 1\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  All(tail);
  FollowPosition position{m_strLog,   m_end.pFile->Device(), m_end.pFile->Inode(), m_end.u64Offset,
                          "# head\n", m_end.strBefore};
  std::ofstream(m_strLog, std::ios::trunc) << "# head\nnew 1\nnew 2\n";
  CLogTail again(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  again.StartAt(position, {time(nullptr) + 10, 0});
  EXPECT_EQ(All(again), (Lines{"# head", "new 1", "new 2"}));
  EXPECT_NE(m_strTold.find("warning"), std::string::npos);
}

TEST_F(LogTailTest, ARotatedFileIsKeptUntilTheNewOneHoldsSomething) {
  Append(m_strLog, "old\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  EXPECT_EQ(All(tail), (Lines{"old"}));
  std::filesystem::rename(m_strLog, m_strLog + ".1");
  EXPECT_EQ(All(tail), Lines{});
  Append(m_strLog, "");
  Age(m_strLog + ".1", 100);
  EXPECT_EQ(All(tail), Lines{});
  Append(m_strLog + ".1", "late");
  Age(m_strLog + ".1", 100);
  EXPECT_EQ(All(tail), Lines{});
  Append(m_strLog, "new\n");
  EXPECT_EQ(All(tail), (Lines{"late", "new"}));
  EXPECT_EQ(m_end.u64Offset, 4U);
}

TEST_F(LogTailTest, AFileThatIsStillWrittenToIsNotLeft) {
  Append(m_strLog, "old\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  All(tail);
  std::filesystem::rename(m_strLog, m_strLog + ".1");
  Append(m_strLog, "new\n");
  // A little ahead, so that a slow machine does not make it old.
  Age(m_strLog + ".1", -2);
  EXPECT_EQ(All(tail), Lines{});
  Age(m_strLog + ".1", 100);
  EXPECT_EQ(All(tail), (Lines{"new"}));
}

// While it lives, a file without permissions may not be read, even if root runs the tests.
class CNobody {
 public:
  CNobody() : m_bRoot(::geteuid() == 0) {
    if (m_bRoot) {
      EXPECT_EQ(::seteuid(65534), 0);
    }
  }
  ~CNobody() {
    if (m_bRoot) {
      EXPECT_EQ(::seteuid(0), 0);
    }
  }
  CNobody(const CNobody&) = delete;
  CNobody& operator=(const CNobody&) = delete;

 private:
  const bool m_bRoot;
};

TEST_F(LogTailTest, ANewLogThatMayNotBeReadIsToldOnceAndWaitedFor) {
  ASSERT_EQ(::chmod(m_strDirectory.c_str(), 0755), 0);
  Append(m_strLog, "old\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  EXPECT_EQ(All(tail), (Lines{"old"}));
  std::filesystem::rename(m_strLog, m_strLog + ".1");
  Age(m_strLog + ".1", 100);
  Append(m_strLog, "new\n");
  ASSERT_EQ(::chmod(m_strLog.c_str(), 0), 0);
  {
    const CNobody nobody;
    EXPECT_EQ(All(tail), Lines{});
    EXPECT_EQ(All(tail), Lines{});
  }
  EXPECT_EQ(m_strTold, "cannot read " + m_strLog + ": Permission denied; it is waited for\n");
  ASSERT_EQ(::chmod(m_strLog.c_str(), 0644), 0);
  EXPECT_EQ(All(tail), (Lines{"new"}));
}

TEST_F(LogTailTest, ARotatedFileThatMayNotBeReadIsToldAndNotPassedOver) {
  ASSERT_EQ(::chmod(m_strDirectory.c_str(), 0755), 0);
  Append(m_strLog, "old\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  EXPECT_EQ(All(tail), (Lines{"old"}));
  std::filesystem::rename(m_strLog, m_strLog + ".2");
  Age(m_strLog + ".2", 100);
  Append(m_strLog + ".1", "between\n");
  Age(m_strLog + ".1", 50);
  ASSERT_EQ(::chmod((m_strLog + ".1").c_str(), 0), 0);
  Append(m_strLog, "new\n");
  {
    const CNobody nobody;
    EXPECT_EQ(All(tail), Lines{});
    EXPECT_EQ(All(tail), Lines{});
  }
  EXPECT_EQ(m_strTold, "cannot read " + m_strLog + ".1: Permission denied; it is waited for\n");
  ASSERT_EQ(::chmod((m_strLog + ".1").c_str(), 0644), 0);
  EXPECT_EQ(All(tail), (Lines{"between", "new"}));
}

TEST_F(LogTailTest, ANewLogThatIsNoFileIsToldOnceAndWaitedFor) {
  Append(m_strLog, "old\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  EXPECT_EQ(All(tail), (Lines{"old"}));
  std::filesystem::rename(m_strLog, m_strLog + ".1");
  Age(m_strLog + ".1", 100);
  std::filesystem::create_directory(m_strLog);
  EXPECT_EQ(All(tail), Lines{});
  EXPECT_EQ(All(tail), Lines{});
  EXPECT_EQ(m_strTold, "cannot follow " + m_strLog + ": it is not a regular file; it is waited for\n");
}

TEST_F(LogTailTest, LinesWithZeroBytesAsDelimitersAreFollowedToo) {
  Append(m_strLog, std::string("a\nb\0c\0", 6));
  CLogTail tail(m_strLog, RecordMode::Zeros, 1000, m_fnTell);
  tail.StartAtBeginning();
  EXPECT_EQ(All(tail), (Lines{"a\nb", "c"}));
  EXPECT_EQ(m_end.u64Offset, 6U);
}

}  // namespace
