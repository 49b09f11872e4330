#include "tools/qmcache/log_walk.h"

#include <unistd.h>

#include <array>
#include <bit>
#include <cstring>
#include <string_view>

#include "tools/qmcache/interruption.h"
#include "tools/qmcache/page_file.h"
#include "tools/qmcache/private_copy.h"

namespace {

constexpr size_t kHeaderSize = 32;
constexpr size_t kFrameHeaderSize = 24;
constexpr size_t kWord = 4;
constexpr size_t kPageSizeAt = 8;
constexpr size_t kSaltsAt = 16;
constexpr size_t kHeaderSumAt = 24;
constexpr size_t kCommitSizeAt = 4;
constexpr size_t kFrameSaltsAt = 8;
constexpr size_t kFrameSumAt = 16;
constexpr size_t kSummedOfFrame = 8;
constexpr uint32_t kMagic = 0x377F0682;  // and 1: the checksum's words are big-endian
constexpr uint32_t kSmallestPage = 512;
constexpr uint32_t kLargestPage = 65536;

uint32_t Word(std::string_view svBytes, size_t uAt, bool bBig = true) {
  uint32_t uWord = 0;
  for (size_t i = 0; i < kWord; ++i) {
    uWord = uWord << 8 | static_cast<unsigned char>(svBytes[uAt + (bBig ? i : kWord - 1 - i)]);
  }
  return uWord;
}

uint64_t TwoWords(std::string_view svBytes, size_t uAt) {
  return uint64_t{Word(svBytes, uAt)} << 32 | Word(svBytes, uAt + kWord);
}

struct Sum {
  bool bBig = false;
  uint32_t uFirst = 0;
  uint32_t uSecond = 0;

  void Add(std::string_view svBytes) {
    for (size_t uAt = 0; uAt + 2 * kWord <= svBytes.size(); uAt += 2 * kWord) {
      uFirst += Word(svBytes, uAt, bBig) + uSecond;
      uSecond += Word(svBytes, uAt + kWord, bBig) + uFirst;
    }
  }
  bool Is(std::string_view svBytes, size_t uAt) const {
    return Word(svBytes, uAt) == uFirst && Word(svBytes, uAt + kWord) == uSecond;
  }
};

bool IsPageSize(uint32_t uSize) {
  return std::has_single_bit(uSize) && uSize >= kSmallestPage && uSize <= kLargestPage;
}

// The whole of strBytes, from there on.
bool ReadAt(int iFile, uint64_t u64At, std::string& strBytes) {
  size_t uRead = 0;
  while (uRead < strBytes.size()) {
    const ssize_t iRead = TEMP_FAILURE_RETRY(
        pread(iFile, strBytes.data() + uRead, strBytes.size() - uRead, static_cast<off_t>(u64At + uRead)));
    if (iRead <= 0) {
      return false;
    }
    uRead += static_cast<size_t>(iRead);
  }
  return true;
}

// An end of a transaction among the frames behind is what tells damage from a log's sound end.
void WalkFrames(int iFile, Sum sum, bool bValid, LogWalk& walk) {
  std::string strFrame(kFrameHeaderSize + walk.uPageSize, '\0');
  uint64_t u64At = kHeaderSize;
  if (!bValid && ReadAt(iFile, u64At, strFrame)) {
    walk.u64Salts = TwoWords(strFrame, kFrameSaltsAt);  // the header's cannot be trusted
  }
  for (; ReadAt(iFile, u64At, strFrame); u64At += strFrame.size()) {
    EndIfInterrupted();
    const std::string_view svFrame(strFrame);
    const bool bOwn = TwoWords(svFrame, kFrameSaltsAt) == walk.u64Salts;
    if (bValid) {
      Sum next = sum;
      next.Add(svFrame.substr(0, kSummedOfFrame));
      next.Add(svFrame.substr(kFrameHeaderSize));
      bValid = bOwn && Word(svFrame, 0) != 0 && next.Is(svFrame, kFrameSumAt);
      sum = next;
    }
    if (bValid) {
      ++walk.u64ValidFrames;
    } else if (bOwn && Word(svFrame, 0) != 0) {
      walk.bDamaged = walk.bDamaged || Word(svFrame, kCommitSizeAt) != 0;
      walk.vecBehind.push_back({Word(svFrame, 0), u64At + kFrameHeaderSize});
    }
  }
}

}  // namespace

bool WalkLog(const std::string& strLog, uint32_t uPageSize, LogWalk& walk) {
  walk = {};
  const int iFile = OpenRegularFile(strLog);
  std::string strHeader(kHeaderSize, '\0');
  if (iFile < 0 || !ReadAt(iFile, 0, strHeader)) {
    if (iFile >= 0) {
      close(iFile);
    }
    return false;
  }
  Sum sum;
  sum.bBig = (Word(strHeader, 0) & 1U) != 0;
  sum.Add(std::string_view(strHeader).substr(0, kHeaderSumAt));
  walk.uPageSize = Word(strHeader, kPageSizeAt);
  walk.u64Salts = TwoWords(strHeader, kSaltsAt);
  const bool bValid =
      (Word(strHeader, 0) & ~1U) == kMagic && IsPageSize(walk.uPageSize) && sum.Is(strHeader, kHeaderSumAt);
  if (!bValid) {
    walk.uPageSize = uPageSize;
  }
  try {
    if (IsPageSize(walk.uPageSize)) {
      WalkFrames(iFile, sum, bValid, walk);
    }
  } catch (...) {
    close(iFile);
    throw;
  }
  close(iFile);
  if (!walk.bDamaged) {
    walk.vecBehind.clear();
  }
  return true;
}

bool IsLogDamaged(const std::string& strDatabase) {
  constexpr int kLooks = 4;
  constexpr useconds_t kPauseUs = 50000;
  uint32_t uPageSize = 0;
  {
    CPageFile file;
    std::string strError;
    uPageSize = file.Open(strDatabase, strError) ? file.PageSize() : 0;
  }
  LogWalk first;
  LogWalk again;
  for (int iLook = 0; iLook < kLooks; ++iLook) {
    if (!WalkLog(strDatabase + "-wal", uPageSize, again) || !again.bDamaged) {
      return false;
    }
    // What is being written ends further on the next time, or in a log that was begun anew.
    if (iLook > 0 && (again.u64Salts != first.u64Salts || again.u64ValidFrames != first.u64ValidFrames)) {
      return false;
    }
    first = again;
    usleep(kPauseUs);
  }
  return true;
}
