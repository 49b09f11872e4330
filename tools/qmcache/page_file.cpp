#include "tools/qmcache/page_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <limits>
#include <system_error>

#include "tools/qmcache/interruption.h"
#include "tools/qmcache/private_copy.h"

namespace {

constexpr std::string_view kMagic("SQLite format 3\0", 16);
constexpr size_t kHeaderSize = 100;
constexpr size_t kPageSizeAt = 16;
constexpr size_t kReservedAt = 20;
constexpr size_t kPageCountAt = 28;
constexpr size_t kFirstFreeAt = 32;
constexpr size_t kFreeCountAt = 36;
constexpr uint32_t kSmallestPage = 512;
constexpr uint32_t kLargestPage = 65536;
constexpr uint32_t kSmallestUsable = 480;
constexpr unsigned char kTableLeaf = 0x0D;
constexpr unsigned char kTableInterior = 0x05;
constexpr size_t kLeafHeader = 8;
constexpr size_t kInteriorHeader = 12;
constexpr size_t kLastChildAt = 8;
constexpr size_t kRootColumn = 3;  // of the schema's rows: the page at which a table begins
constexpr size_t kPageNumberSize = 4;
constexpr uint64_t kLongestRow = uint64_t{1} << 30;
constexpr uint64_t kChainsAPage = 8;

uint32_t Number(std::string_view svBytes, size_t uAt, size_t uSize) {
  uint32_t uNumber = 0;
  for (size_t i = 0; i < uSize; ++i) {
    uNumber = uNumber << 8 | static_cast<unsigned char>(svBytes[uAt + i]);
  }
  return uNumber;
}

// A number of one to nine bytes, seven bits in each but the last of nine. False when the bytes end before it does.
bool ReadVarint(std::string_view svBytes, size_t& uAt, uint64_t& u64Number) {
  constexpr size_t kLongest = 9;
  u64Number = 0;
  for (size_t i = 0; i < kLongest; ++i) {
    if (uAt >= svBytes.size()) {
      return false;
    }
    const auto cByte = static_cast<unsigned char>(svBytes[uAt++]);
    if (i + 1 == kLongest) {
      u64Number = u64Number << 8 | cByte;
      return true;
    }
    u64Number = u64Number << 7 | (cByte & 0x7FU);
    if (cByte < 0x80) {
      return true;
    }
  }
  return false;
}

// Two's complement of that many bytes.
int64_t SignedNumber(std::string_view svBytes) {
  uint64_t u64 = !svBytes.empty() && static_cast<unsigned char>(svBytes[0]) >= 0x80 ? ~uint64_t{0} : 0;
  for (const char c : svBytes) {
    u64 = u64 << 8 | static_cast<unsigned char>(c);
  }
  return static_cast<int64_t>(u64);
}

// Takes the value of that type from the front of svBody. False when it is not all there, or there is no such type.
bool TakeValue(uint64_t u64Type, std::string_view& svBody, RowValue& value) {
  constexpr std::array<uint64_t, 10> kSizes = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0};
  constexpr uint64_t kFloat = 7;
  constexpr uint64_t kZero = 8;
  constexpr uint64_t kOne = 9;
  constexpr uint64_t kFirstLong = 12;
  const bool bLong = u64Type >= kFirstLong;
  if (!bLong && u64Type >= kSizes.size()) {
    return false;
  }
  const uint64_t u64Size = bLong ? (u64Type - kFirstLong) / 2 : kSizes[u64Type];
  if (u64Size > svBody.size()) {
    return false;
  }
  const std::string_view svValue = svBody.substr(0, u64Size);
  svBody.remove_prefix(u64Size);
  if (u64Type == 0) {
    value.type = RowValue::Type::Null;
  } else if (bLong) {
    value.type = u64Type % 2 == 1 ? RowValue::Type::Text : RowValue::Type::Other;
    value.svText = svValue;
  } else if (u64Type == kFloat) {
    value.type = RowValue::Type::Other;
  } else {
    value.type = RowValue::Type::Integer;
    value.i64 = u64Type == kOne ? 1 : u64Type == kZero ? 0 : SignedNumber(svValue);
  }
  return true;
}

}  // namespace

bool ReadRowValues(std::string_view svPayload, std::vector<RowValue>& vecValues) {
  vecValues.clear();
  size_t uAt = 0;
  uint64_t u64Header = 0;
  if (!ReadVarint(svPayload, uAt, u64Header) || u64Header > svPayload.size() || u64Header < uAt) {
    return false;
  }
  const std::string_view svHeader = svPayload.substr(0, u64Header);
  std::string_view svBody = svPayload.substr(u64Header);
  while (uAt < svHeader.size()) {
    uint64_t u64Type = 0;
    RowValue value;
    if (!ReadVarint(svHeader, uAt, u64Type) || !TakeValue(u64Type, svBody, value)) {
      return false;
    }
    vecValues.push_back(value);
  }
  return true;
}

CPageFile::~CPageFile() {
  if (m_iFile >= 0) {
    close(m_iFile);
  }
}

bool CPageFile::Open(const std::string& strPath, std::string& strError) {
  struct stat info {};
  m_iFile = OpenRegularFile(strPath);
  if (m_iFile < 0 || fstat(m_iFile, &info) != 0) {
    strError = "cannot read " + strPath + ": " + std::generic_category().message(errno);
    return false;
  }
  m_u64Size = static_cast<uint64_t>(info.st_size);
  std::string strHeader(kHeaderSize, '\0');
  const bool bRead = TEMP_FAILURE_RETRY(pread(m_iFile, strHeader.data(), kHeaderSize, 0)) == kHeaderSize;
  uint32_t uPageSize = Number(strHeader, kPageSizeAt, 2);
  uPageSize = uPageSize == 1 ? kLargestPage : uPageSize;
  m_uReserved = Number(strHeader, kReservedAt, 1);
  m_bHeader = bRead && strHeader.starts_with(kMagic) && std::has_single_bit(uPageSize) && uPageSize >= kSmallestPage &&
              uPageSize - m_uReserved >= kSmallestUsable;
  if (!m_bHeader) {
    m_uReserved = 0;
    SetPageSize(m_uPageSize);
    return true;
  }
  m_uAnnounced = Number(strHeader, kPageCountAt, kPageNumberSize);
  m_uFirstFree = Number(strHeader, kFirstFreeAt, kPageNumberSize);
  m_uFreeCount = Number(strHeader, kFreeCountAt, kPageNumberSize);
  SetPageSize(uPageSize);
  return true;
}

void CPageFile::SetPageSize(uint32_t uPageSize) {
  m_uPageSize = uPageSize;
  m_uUsable = uPageSize - m_uReserved;
  // A page that is cut short counts: its cells are checked one by one.
  m_uPages = static_cast<uint32_t>(
      std::min<uint64_t>((m_u64Size + uPageSize - 1) / uPageSize, std::numeric_limits<uint32_t>::max() - 1));
  m_vecFree.assign(size_t{m_uPages} + 1, false);
  m_u64ChainBudget = kChainsAPage * m_uPages;
}

bool CPageFile::ReadAt(uint32_t uPage, std::string& strPage) const {
  strPage.assign(m_uPageSize, '\0');
  const auto iAt = static_cast<off_t>(uPage - 1) * static_cast<off_t>(m_uPageSize);
  size_t uRead = 0;
  while (uRead < m_uPageSize) {
    const ssize_t iRead = TEMP_FAILURE_RETRY(
        pread(m_iFile, strPage.data() + uRead, m_uPageSize - uRead, iAt + static_cast<off_t>(uRead)));
    if (iRead < 0) {
      return false;
    }
    if (iRead == 0) {
      break;
    }
    uRead += static_cast<size_t>(iRead);
  }
  return uRead > 0;
}

bool CPageFile::ReadFreeList() {
  if (TakeFreeList() && !NamesPagesInUse()) {
    return true;
  }
  m_vecFree.assign(m_vecFree.size(), false);
  return false;
}

bool CPageFile::TakeFreeList() {
  uint64_t u64Found = 0;
  std::string strTrunk;
  const auto fnTake = [&](uint32_t uPage) {
    if (uPage < 2 || uPage > m_uPages || m_vecFree[uPage]) {
      return false;
    }
    m_vecFree[uPage] = true;
    ++u64Found;
    return true;
  };
  for (uint32_t uTrunk = m_uFirstFree; uTrunk != 0; uTrunk = Number(strTrunk, 0, kPageNumberSize)) {
    if (!fnTake(uTrunk) || !ReadAt(uTrunk, strTrunk)) {
      return false;
    }
    const uint32_t uLeaves = Number(strTrunk, kPageNumberSize, kPageNumberSize);
    if (uLeaves > m_uUsable / kPageNumberSize - 2) {
      return false;
    }
    for (uint32_t i = 0; i < uLeaves; ++i) {
      if (!fnTake(Number(strTrunk, (size_t{i} + 2) * kPageNumberSize, kPageNumberSize))) {
        return false;
      }
    }
  }
  return u64Found == m_uFreeCount;
}

bool CPageFile::NamesPagesInUse() {
  if (m_uFirstFree == 0) {
    return false;
  }
  bool bInUse = false;
  const auto fnAsk = [&](uint64_t u64Page) { bInUse = bInUse || (u64Page <= m_uPages && m_vecFree[u64Page]); };
  for (uint32_t uPage = 1; uPage <= m_uPages && !bInUse; ++uPage) {
    EndIfInterrupted();
    // Few pages are above the leaves: of the others one byte is read.
    unsigned char cType = 0;
    const auto iAt = static_cast<off_t>(uPage - 1) * static_cast<off_t>(m_uPageSize);
    const bool bLook = uPage == 1 || (!m_vecFree[uPage] && TEMP_FAILURE_RETRY(pread(m_iFile, &cType, 1, iAt)) == 1 &&
                                      cType == kTableInterior);
    const Kind kind = bLook ? ReadPage(uPage) : Kind::Other;
    if (kind == Kind::Interior) {
      ForEachChild(fnAsk);
    } else if (kind == Kind::TableLeaf && uPage == 1) {
      uint64_t u64Broken = 0;
      ForEachCell(
          [&](const PageCell& cell) {
            std::vector<RowValue> vec;
            if (ReadRowValues(cell.strPayload, vec) && vec.size() > kRootColumn && vec[kRootColumn].i64 > 0) {
              fnAsk(static_cast<uint64_t>(vec[kRootColumn].i64));
            }
          },
          u64Broken);
    }
  }
  return bInUse;
}

void CPageFile::ForEachChild(const std::function<void(uint64_t)>& fnChild) const {
  const size_t uHeader = m_uPage == 1 ? kHeaderSize : 0;
  const size_t uPointers = uHeader + kInteriorHeader;
  const size_t uCells = std::min<size_t>(Number(m_strPage, uHeader + 3, 2), (m_uUsable - uPointers) / 2);
  fnChild(Number(m_strPage, uHeader + kLastChildAt, kPageNumberSize));
  for (size_t i = 0; i < uCells; ++i) {
    const size_t uAt = Number(m_strPage, uPointers + 2 * i, 2);
    if (uAt >= uPointers && uAt + kPageNumberSize <= m_uUsable) {
      fnChild(Number(m_strPage, uAt, kPageNumberSize));
    }
  }
}

CPageFile::Kind CPageFile::ReadPage(uint32_t uPage) {
  m_uPage = uPage;
  if (!ReadAt(uPage, m_strPage)) {
    return Kind::Unreadable;
  }
  const auto cType = static_cast<unsigned char>(m_strPage[uPage == 1 ? kHeaderSize : 0]);
  return cType == kTableLeaf ? Kind::TableLeaf : cType == kTableInterior ? Kind::Interior : Kind::Other;
}

void CPageFile::ForEachCell(const std::function<void(PageCell&&)>& fnCell, uint64_t& u64Broken) {
  const size_t uHeader = m_uPage == 1 ? kHeaderSize : 0;
  const size_t uPointers = uHeader + kLeafHeader;
  const size_t uCells = std::min<size_t>(Number(m_strPage, uHeader + 3, 2), (m_uUsable - uPointers) / 2);
  for (size_t i = 0; i < uCells; ++i) {
    const size_t uAt = Number(m_strPage, uPointers + 2 * i, 2);
    PageCell cell;
    if (uAt < uPointers || uAt >= m_uUsable || !ReadCell(uAt, cell)) {
      ++u64Broken;
      continue;
    }
    fnCell(std::move(cell));
  }
}

bool CPageFile::ReadCell(size_t uAt, PageCell& cell) {
  const std::string_view svPage(m_strPage.data(), m_uUsable);
  uint64_t u64Length = 0;
  uint64_t u64RowId = 0;
  if (!ReadVarint(svPage, uAt, u64Length) || !ReadVarint(svPage, uAt, u64RowId) || u64Length > kLongestRow ||
      u64Length > m_u64Size) {
    return false;
  }
  cell.i64RowId = static_cast<int64_t>(u64RowId);
  // How much of a long row stands in the leaf itself is the format's own arithmetic.
  const uint64_t u64Most = m_uUsable - 35;
  const uint64_t u64Least = (m_uUsable - 12) * 32 / 255 - 23;
  uint64_t u64Local = u64Length;
  if (u64Length > u64Most) {
    const uint64_t u64Even = u64Least + (u64Length - u64Least) % (m_uUsable - kPageNumberSize);
    u64Local = u64Even <= u64Most ? u64Even : u64Least;
  }
  const bool bChain = u64Local < u64Length;
  if (uAt + u64Local + (bChain ? kPageNumberSize : 0) > svPage.size()) {
    return false;
  }
  cell.strPayload.assign(svPage.substr(uAt, u64Local));
  return !bChain || ReadChain(Number(svPage, uAt + u64Local, kPageNumberSize), u64Length, cell);
}

bool CPageFile::ReadChain(uint32_t uFirst, uint64_t u64Length, PageCell& cell) {
  std::string strPage;
  uint32_t uNext = uFirst;
  while (cell.strPayload.size() < u64Length) {
    if (uNext < 2 || uNext > m_uPages || m_u64ChainBudget == 0 || !ReadAt(uNext, strPage)) {
      return false;
    }
    --m_u64ChainBudget;
    cell.vecChain.push_back(uNext);
    const auto uTaken =
        static_cast<size_t>(std::min<uint64_t>(u64Length - cell.strPayload.size(), m_uUsable - kPageNumberSize));
    cell.strPayload.append(strPage, kPageNumberSize, uTaken);
    uNext = Number(strPage, 0, kPageNumberSize);
  }
  return true;  // where a chain should end is of no matter once the row is whole
}
