#include "platform/file_info.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "temporary_directory.h"

namespace {

TEST(FileInfoTest, TellsSizeAndTimeOfARegularFile) {
  const CTemporaryDirectory directory;
  const std::string strPath = directory.Write("file", "12345");
  const timespec times[2] = {{1000, 0}, {1234567890, 999999999}};
  ASSERT_EQ(utimensat(AT_FDCWD, strPath.c_str(), times, 0), 0);
  unsigned long long u64Size = 0;
  unsigned long long u64Time = 0;
  EXPECT_EQ(QmGetFileAttr(strPath.c_str(), &u64Size, &u64Time), 0);
  EXPECT_EQ(u64Size, 5u);
  EXPECT_EQ(u64Time, 1234567890u);
}

TEST(FileInfoTest, SizesBeyondFourGigabytesAreWhole) {
  const CTemporaryDirectory directory;
  const std::string strPath = directory.Write("sparse", "");
  ASSERT_EQ(truncate(strPath.c_str(), 5'000'000'000), 0);
  unsigned long long u64Size = 0;
  unsigned long long u64Time = 0;
  EXPECT_EQ(QmGetFileAttr(strPath.c_str(), &u64Size, &u64Time), 0);
  EXPECT_EQ(u64Size, 5'000'000'000u);
}

TEST(FileInfoTest, FailureLeavesTheOutputsAlone) {
  const CTemporaryDirectory directory;
  const std::string strFile = directory.Write("file", "x");
  ASSERT_EQ(mkfifo(directory.Path("fifo").c_str(), 0600), 0);
  unsigned long long u64Size = 7;
  unsigned long long u64Time = 8;
  EXPECT_NE(QmGetFileAttr(directory.Path().c_str(), &u64Size, &u64Time), 0);
  EXPECT_NE(QmGetFileAttr(directory.Path("fifo").c_str(), &u64Size, &u64Time), 0);
  EXPECT_NE(QmGetFileAttr(directory.Path("missing").c_str(), &u64Size, &u64Time), 0);
  EXPECT_NE(QmGetFileAttr(nullptr, &u64Size, &u64Time), 0);
  EXPECT_NE(QmGetFileAttr(strFile.c_str(), nullptr, &u64Time), 0);
  EXPECT_NE(QmGetFileAttr(strFile.c_str(), &u64Size, nullptr), 0);
  EXPECT_EQ(u64Size, 7u);
  EXPECT_EQ(u64Time, 8u);
}

TEST(FileInfoTest, AnyKindOfPathMayExist) {
  const CTemporaryDirectory directory;
  directory.Write("file", "");
  EXPECT_EQ(QmIsFileExisted(directory.Path("file").c_str()), 1);
  EXPECT_EQ(QmIsFileExisted(directory.Path().c_str()), 1);
  EXPECT_EQ(QmIsFileExisted(directory.Path("missing").c_str()), 0);
  EXPECT_EQ(QmIsFileExisted(""), 0);
  EXPECT_EQ(QmIsFileExisted(nullptr), 0);
}

TEST(FileInfoTest, ModulePathIsTheDirectoryOfTheExecutable) {
  const std::string strExpected = std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
  char szPath[4096];
  std::memset(szPath, 'x', sizeof szPath);
  EXPECT_EQ(QmGetModuleFilePath(szPath, sizeof szPath), 0);
  EXPECT_EQ(strExpected, szPath);
}

TEST(FileInfoTest, ModulePathNeedsRoomForItsTerminator) {
  const std::string strExpected = std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
  std::string strBuffer(strExpected.size() + 1, 'x');
  EXPECT_EQ(QmGetModuleFilePath(strBuffer.data(), static_cast<unsigned>(strBuffer.size())), 0);
  EXPECT_EQ(strBuffer.c_str(), strExpected);

  strBuffer.assign(strExpected.size(), 'x');
  errno = 0;
  EXPECT_NE(QmGetModuleFilePath(strBuffer.data(), static_cast<unsigned>(strBuffer.size())), 0);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(strBuffer, std::string(strExpected.size(), 'x'));
  EXPECT_NE(QmGetModuleFilePath(strBuffer.data(), 0), 0);
  EXPECT_NE(QmGetModuleFilePath(nullptr, 100), 0);
}

}  // namespace
