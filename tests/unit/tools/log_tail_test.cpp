// The reading of a log over rotations and truncations, without a host.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tools/qmsend/follow/log_tail.h"

namespace {

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

  // The position behind the last line that was read.
  FollowPosition End() const {
    return {m_strLog,        m_end.pFile->Device(), m_end.pFile->Inode(),
            m_end.u64Offset, m_end.pFile->Head(),   m_end.strBefore};
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
  EXPECT_EQ(m_end.strBefore, "one\ntwo\n");
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

TEST_F(LogTailTest, ALogThatBeginsWithTheSameBannerAgainIsNotTakenForTheOneThatWasRead) {
  const std::string strBanner(300, '#');
  for (const char* pszEnd : {"\n", "\n\n", "\n}\n"}) {
    Append(m_strLog, strBanner + "\nold 1" + pszEnd);
    CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
    tail.StartAtBeginning();
    All(tail);
    m_strTold.clear();
    std::ofstream(m_strLog, std::ios::trunc) << strBanner << "\nnew 1" << pszEnd << "new 2\n";
    const Lines vecLines = All(tail);
    ASSERT_GE(vecLines.size(), 2U) << pszEnd;
    EXPECT_EQ(vecLines[0], strBanner);
    EXPECT_EQ(vecLines[1], "new 1");
    EXPECT_EQ(vecLines.back(), "new 2");
    EXPECT_NE(m_strTold.find("was truncated"), std::string::npos);
    std::filesystem::remove(m_strLog);
  }
}

TEST_F(LogTailTest, ACopyOfALogWithABannerIsReadToItsEnd) {
  const std::string strBanner(300, '#');
  Append(m_strLog, strBanner + "\nold 1\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  All(tail);
  Append(m_strLog, "old 2\n");
  std::filesystem::copy_file(m_strLog, m_strLog + ".1");
  Age(m_strLog + ".1", 100);
  std::ofstream(m_strLog, std::ios::trunc) << strBanner << "\nnew 1\nnew 2\nnew 3\n";
  EXPECT_EQ(All(tail), (Lines{"old 2", strBanner, "new 1", "new 2", "new 3"}));
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

TEST_F(LogTailTest, APositionInALogThatMayNotBeReadIsWaitedFor) {
  ASSERT_EQ(::chmod(m_strDirectory.c_str(), 0755), 0);
  Append(m_strLog, "old 1\nold 2\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  All(tail);
  const FollowPosition position = End();
  Append(m_strLog, "new\n");
  ASSERT_EQ(::chmod(m_strLog.c_str(), 0), 0);
  CLogTail again(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  {
    const CNobody nobody;
    again.StartAt(position, {time(nullptr), 0});
    EXPECT_EQ(All(again), Lines{});
  }
  EXPECT_EQ(m_strTold, "cannot read " + m_strLog + ": Permission denied; it is waited for\n");
  ASSERT_EQ(::chmod(m_strLog.c_str(), 0644), 0);
  EXPECT_EQ(All(again), (Lines{"new"}));
}

TEST_F(LogTailTest, APositionInARotatedFileThatMayNotBeReadIsWaitedFor) {
  ASSERT_EQ(::chmod(m_strDirectory.c_str(), 0755), 0);
  Append(m_strLog, "old 1\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  All(tail);
  const FollowPosition position = End();
  Append(m_strLog, "old 2\n");
  std::filesystem::rename(m_strLog, m_strLog + ".1");
  Age(m_strLog + ".1", 100);
  Append(m_strLog, "new\n");
  ASSERT_EQ(::chmod((m_strLog + ".1").c_str(), 0), 0);
  CLogTail again(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  {
    const CNobody nobody;
    again.StartAt(position, {time(nullptr) - 50, 0});
    EXPECT_EQ(All(again), Lines{});
  }
  EXPECT_EQ(m_strTold, "cannot read " + m_strLog + ".1: Permission denied; it is waited for\n");
  ASSERT_EQ(::chmod((m_strLog + ".1").c_str(), 0644), 0);
  EXPECT_EQ(All(again), (Lines{"old 2", "new"}));
}

TEST_F(LogTailTest, ALineThatWasTooLongAndIsNotAnyMoreIsReadWhole) {
  Append(m_strLog, "short\n" + std::string(300, 'l'));
  CLogTail tail(m_strLog, RecordMode::Lines, 100, m_fnTell);
  tail.StartAtBeginning();
  EXPECT_EQ(All(tail), (Lines{"short"}));
  tail.LimitRecords(1000);
  Append(m_strLog, "\nnext\n");
  EXPECT_EQ(All(tail), (Lines{std::string(300, 'l'), "next"}));
  EXPECT_EQ(m_end.u64Offset, 312U);
}

TEST_F(LogTailTest, ALineThatBecomesTooLongIsToldToBe) {
  Append(m_strLog, "short\n");
  CLogTail tail(m_strLog, RecordMode::Lines, 1000, m_fnTell);
  tail.StartAtBeginning();
  All(tail);
  tail.LimitRecords(100);
  Append(m_strLog, std::string(300, 'l'));
  Append(m_strLog, "\n");
  Record line;
  ASSERT_TRUE(tail.Read());
  ASSERT_TRUE(tail.Next(line, m_end));
  EXPECT_TRUE(line.bTooLong);
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
