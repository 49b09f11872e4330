#include "host/ingress/read_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace {

// Puts as much of svBytes as the space takes.
size_t Fill(CReadBuffer& buffer, std::string_view svBytes, size_t uFrameSize) {
  const CReadBuffer::Space space = buffer.Prepare(uFrameSize);
  const size_t uSize = std::min(space.uSize, svBytes.size());
  std::memcpy(space.pBegin, svBytes.data(), uSize);
  buffer.Commit(uSize);
  return uSize;
}

std::string Pattern(size_t uSize) {
  std::string strPattern(uSize, '\0');
  for (size_t i = 0; i < uSize; ++i) {
    strPattern[i] = static_cast<char>(i * 7 + i / 251);
  }
  return strPattern;
}

TEST(ReadBufferTest, HoldsNothingAtFirst) {
  CReadBuffer buffer;
  EXPECT_TRUE(buffer.Empty());
  EXPECT_EQ(buffer.Capacity(), 0U);
}

TEST(ReadBufferTest, AnAnnouncedFrameTakesNoStorageBeforeItsBytes) {
  CReadBuffer buffer;
  Fill(buffer, "abcd", 0);
  Fill(buffer, "e", 16U << 20);
  EXPECT_LE(buffer.Capacity(), 4096U);
  EXPECT_EQ(buffer.Data(), "abcde");
}

TEST(ReadBufferTest, ALongFrameGrowsByDoublingAndStopsAtItsSize) {
  const std::string strFrame = Pattern((1U << 20) + 12345);
  CReadBuffer buffer;
  std::string_view svLeft = strFrame;
  while (!svLeft.empty()) {
    svLeft.remove_prefix(Fill(buffer, svLeft, strFrame.size()));
    EXPECT_LE(buffer.Capacity(), std::max<size_t>(buffer.Data().size() * 2, 4096));
  }
  EXPECT_EQ(buffer.Capacity(), strFrame.size());
  EXPECT_EQ(buffer.Data(), strFrame);
}

TEST(ReadBufferTest, StorageOfALongFrameIsGivenBackWithIt) {
  const std::string strFrame = Pattern(1U << 20);
  CReadBuffer buffer;
  std::string_view svLeft = strFrame;
  while (!svLeft.empty()) {
    svLeft.remove_prefix(Fill(buffer, svLeft, strFrame.size()));
  }
  buffer.Consume(strFrame.size());
  EXPECT_EQ(buffer.Capacity(), 0U);
}

TEST(ReadBufferTest, ShortFramesNeverGrowItBeyondTheBusySize) {
  CReadBuffer buffer;
  const std::string strBytes = Pattern(1U << 20);
  for (int i = 0; i < 12; ++i) {
    const size_t uSize = Fill(buffer, strBytes, 100);
    buffer.Consume(uSize - 1);
  }
  EXPECT_EQ(buffer.Capacity(), CReadBuffer::kBusySize);
}

TEST(ReadBufferTest, BytesSurviveEveryMove) {
  CReadBuffer buffer;
  const std::string strBytes = Pattern(3U << 20);
  std::string_view svLeft = strBytes;
  std::string strTaken;
  size_t uTake = 1;
  while (!svLeft.empty() || !buffer.Empty()) {
    svLeft.remove_prefix(Fill(buffer, svLeft.substr(0, uTake * 3), 0));
    const size_t uSize = std::min(uTake, buffer.Data().size());
    strTaken.append(buffer.Data().substr(0, uSize));
    buffer.Consume(uSize);
    uTake = uTake * 5 % 40009;
  }
  EXPECT_TRUE(strTaken == strBytes);
}

TEST(ReadBufferTest, CanBeUsedAgainAfterARelease) {
  CReadBuffer buffer;
  Fill(buffer, "abc", 0);
  buffer.Consume(3);
  buffer.Release();
  EXPECT_EQ(buffer.Capacity(), 0U);
  Fill(buffer, "xyz", 0);
  EXPECT_EQ(buffer.Data(), "xyz");
}

}  // namespace
