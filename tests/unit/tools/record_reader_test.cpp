#include "tools/qmsend/record_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Taken {
  std::string strBytes;
  uint64_t u64Number;
  uint64_t u64Length;
  bool bTooLong;
};

// Feeds the text through a pipe in pieces of uPiece bytes and takes every record as soon as it is there.
std::vector<Taken> ReadAll(RecordMode mode, size_t uMaxRecord, const std::string& strText, size_t uPiece) {
  int aPipe[2];
  EXPECT_EQ(::pipe2(aPipe, O_CLOEXEC), 0);
  std::thread writer([&] {
    for (size_t uAt = 0; uAt < strText.size(); uAt += uPiece) {
      const size_t uSize = std::min(uPiece, strText.size() - uAt);
      EXPECT_EQ(::write(aPipe[1], strText.data() + uAt, uSize), static_cast<ssize_t>(uSize));
    }
    ::close(aPipe[1]);
  });
  CRecordReader reader(mode, uMaxRecord);
  std::vector<Taken> vecTaken;
  for (;;) {
    Record record;
    const CRecordReader::Step step = reader.Next(record);
    if (step == CRecordReader::Step::End) {
      break;
    }
    if (step == CRecordReader::Step::NeedInput) {
      reader.ReadFrom(aPipe[0]);
    } else {
      vecTaken.push_back({std::string(record.svBytes), record.u64Number, record.u64Length, record.bTooLong});
    }
  }
  writer.join();
  ::close(aPipe[0]);
  return vecTaken;
}

std::vector<std::string> Bytes(const std::vector<Taken>& vecTaken) {
  std::vector<std::string> vecBytes;
  for (const Taken& taken : vecTaken) {
    vecBytes.push_back(taken.strBytes);
  }
  return vecBytes;
}

using Texts = std::vector<std::string>;

TEST(RecordReaderTest, CutsLines) {
  for (const size_t uPiece : {1U, 3U, 4096U}) {
    EXPECT_EQ(Bytes(ReadAll(RecordMode::Lines, 100, "one\ntwo\nthree\n", uPiece)), (Texts{"one", "two", "three"}));
  }
}

TEST(RecordReaderTest, ALastLineWithoutANewlineIsARecord) {
  EXPECT_EQ(Bytes(ReadAll(RecordMode::Lines, 100, "one\ntwo", 1)), (Texts{"one", "two"}));
}

TEST(RecordReaderTest, EmptyInputHasNoRecords) {
  EXPECT_TRUE(ReadAll(RecordMode::Lines, 100, "", 1).empty());
}

TEST(RecordReaderTest, EmptyLinesAreEmptyRecords) {
  const auto vecTaken = ReadAll(RecordMode::Lines, 100, "\n\na\n", 4096);
  EXPECT_EQ(Bytes(vecTaken), (Texts{"", "", "a"}));
  EXPECT_EQ(vecTaken[2].u64Number, 3U);
}

TEST(RecordReaderTest, BytesAreKeptAsTheyAre) {
  const std::string strText("a\r\n\xFF\0\x01\n", 7);
  EXPECT_EQ(Bytes(ReadAll(RecordMode::Lines, 100, strText, 2)), (Texts{"a\r", std::string("\xFF\0\x01", 3)}));
}

TEST(RecordReaderTest, ZeroBytesDelimitRecords) {
  const std::string strText("one\ntwo\0\0three", 14);
  EXPECT_EQ(Bytes(ReadAll(RecordMode::Zeros, 100, strText, 5)), (Texts{"one\ntwo", "", "three"}));
}

TEST(RecordReaderTest, AWholeFileIsOneRecord) {
  EXPECT_EQ(Bytes(ReadAll(RecordMode::WholeFile, 100, "one\ntwo\n", 3)), (Texts{"one\ntwo\n"}));
  EXPECT_EQ(Bytes(ReadAll(RecordMode::WholeFile, 100, "", 3)), (Texts{""}));
}

TEST(RecordReaderTest, ARecordOfTheGreatestLengthIsTaken) {
  const std::string strLongest(1000000, 'l');
  const auto vecTaken = ReadAll(RecordMode::Lines, strLongest.size(), strLongest + "\nnext", 8192);
  ASSERT_EQ(vecTaken.size(), 2U);
  EXPECT_FALSE(vecTaken[0].bTooLong);
  EXPECT_TRUE(vecTaken[0].strBytes == strLongest);
  EXPECT_EQ(vecTaken[1].strBytes, "next");
}

TEST(RecordReaderTest, ARecordThatIsTooLongIsReportedAlone) {
  for (const size_t uLength : {101U, 300U, 5000000U}) {
    for (const size_t uPiece : {97U, 65536U}) {
      const std::string strLong = "BEGIN" + std::string(uLength - 5, 'x');
      const auto vecTaken = ReadAll(RecordMode::Lines, 100, "before\n" + strLong + "\nafter\n", uPiece);
      ASSERT_EQ(vecTaken.size(), 3U);
      EXPECT_EQ(vecTaken[0].strBytes, "before");
      EXPECT_TRUE(vecTaken[1].bTooLong);
      EXPECT_EQ(vecTaken[1].u64Number, 2U);
      EXPECT_EQ(vecTaken[1].u64Length, uLength);
      EXPECT_EQ(vecTaken[1].strBytes, strLong.substr(0, 64));
      EXPECT_EQ(vecTaken[2].strBytes, "after");
      EXPECT_FALSE(vecTaken[2].bTooLong);
    }
  }
}

TEST(RecordReaderTest, ATooLongRecordAtTheEndIsReported) {
  const auto vecTaken = ReadAll(RecordMode::Lines, 10, std::string(1000, 'x'), 100);
  ASSERT_EQ(vecTaken.size(), 1U);
  EXPECT_TRUE(vecTaken[0].bTooLong);
  EXPECT_EQ(vecTaken[0].u64Length, 1000U);
  const auto vecFile = ReadAll(RecordMode::WholeFile, 10, std::string(1000000, 'x'), 4096);
  ASSERT_EQ(vecFile.size(), 1U);
  EXPECT_TRUE(vecFile[0].bTooLong);
  EXPECT_EQ(vecFile[0].u64Length, 1000000U);
}

TEST(RecordReaderTest, AnEmptyNonBlockingPipeIsNoEnd) {
  int aPipe[2];
  ASSERT_EQ(::pipe2(aPipe, O_CLOEXEC | O_NONBLOCK), 0);
  CRecordReader reader(RecordMode::Lines, 100);
  Record record;
  EXPECT_EQ(reader.ReadFrom(aPipe[0]), CRecordReader::Input::None);
  EXPECT_EQ(reader.Next(record), CRecordReader::Step::NeedInput);
  ASSERT_EQ(::write(aPipe[1], "x\n", 2), 2);
  EXPECT_EQ(reader.ReadFrom(aPipe[0]), CRecordReader::Input::Some);
  EXPECT_EQ(reader.Next(record), CRecordReader::Step::Record);
  ::close(aPipe[1]);
  EXPECT_EQ(reader.ReadFrom(aPipe[0]), CRecordReader::Input::Ended);
  EXPECT_EQ(reader.Next(record), CRecordReader::Step::End);
  ::close(aPipe[0]);
}

TEST(RecordReaderTest, AnUnreadableDescriptorEndsTheStream) {
  CRecordReader reader(RecordMode::Lines, 100);
  Record record;
  EXPECT_EQ(reader.ReadFrom(-1), CRecordReader::Input::Failed);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(reader.Next(record), CRecordReader::Step::End);
}

}  // namespace
