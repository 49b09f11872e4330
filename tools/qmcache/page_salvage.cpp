#include "tools/qmcache/page_salvage.h"

#include <algorithm>
#include <array>
#include <vector>

#include "tools/qmcache/interruption.h"
#include "tools/qmcache/page_file.h"

namespace {

constexpr size_t kColumns = 9;

std::optional<int64_t> Integer(const RowValue& value) {
  return value.type == RowValue::Type::Integer ? std::optional(value.i64) : std::nullopt;
}

std::optional<std::string> Text(const RowValue& value) {
  return value.type == RowValue::Type::Text ? std::optional(std::string(value.svText)) : std::nullopt;
}

// SQLite keeps the bytes at 1 GiB for its locks, and never writes to the page that they stand in.
uint32_t LockPage(uint32_t uPageSize) {
  constexpr uint32_t kLockedAt = 0x40000000;
  return kLockedAt / uPageSize + 1;
}

// False for rows of another table.
bool ToStoredRow(const PageCell& cell, StoredRow& row) {
  std::vector<RowValue> vec;
  if (!ReadRowValues(cell.strPayload, vec) || vec.size() != kColumns) {
    return false;
  }
  row = {cell.i64RowId, cell.i64RowId, Integer(vec[1]), Integer(vec[2]),
         Text(vec[3]),  Text(vec[4]),  Integer(vec[5]), Text(vec[6])};
  return true;
}

// A chain's page stands for the row it belongs to; one that belongs to no row that was read is lost.
class CSalvage {
 public:
  CSalvage(CPageFile& file, CProgress& progress,
           const std::function<void(const StoredRow&, const CacheRecord&)>& fnRecord,
           std::unordered_set<uint64_t>& setIds, SalvageReport& report)
      : m_file(file), m_progress(progress), m_fnRecord(fnRecord), m_setIds(setIds), m_report(report) {}

  void Run(uint32_t uPages) {
    m_vecTold.assign(size_t{m_file.PageCount()} + 1, false);
    for (uint32_t uPage = 1; uPage <= uPages; ++uPage) {
      EndIfInterrupted();
      m_progress.Advance(m_file.PageSize());
      LookAt(uPage);
    }
    for (uint32_t uPage = 1; uPage <= uPages; ++uPage) {
      m_report.u64LostPages += m_vecTold[uPage] || uPage == LockPage(m_file.PageSize()) ? 0 : 1;
    }
  }

 private:
  void LookAt(uint32_t uPage) {
    if (m_file.IsFree(uPage)) {
      m_vecTold[uPage] = true;
      return;
    }
    switch (m_file.ReadPage(uPage)) {
      case CPageFile::Kind::TableLeaf:
        m_vecTold[uPage] = true;
        m_file.ForEachCell([&](PageCell&& cell) { TakeCell(uPage, cell); }, m_report.u64BrokenRows);
        break;
      case CPageFile::Kind::Interior:
        m_vecTold[uPage] = true;
        break;
      case CPageFile::Kind::Other:
      case CPageFile::Kind::Unreadable:
        break;
    }
  }

  void TakeCell(uint32_t uPage, const PageCell& cell) {
    StoredRow row;
    if (!ToStoredRow(cell, row)) {
      // The schema's own row is none of the table's.
      m_report.u64BrokenRows += uPage == 1 ? 0 : 1;
      return;
    }
    const DecodedRow decoded = DecodeRow(row, "");
    if (!decoded.record) {
      ++m_report.u64BrokenRows;
      return;
    }
    for (const uint32_t uChained : cell.vecChain) {
      m_vecTold[uChained] = true;
    }
    if (!m_setIds.insert(decoded.record->u64DataId).second) {
      ++m_report.u64Repeated;
      return;
    }
    ++m_report.u64Records;
    m_fnRecord(row, *decoded.record);
  }

  CPageFile& m_file;
  CProgress& m_progress;
  const std::function<void(const StoredRow&, const CacheRecord&)>& m_fnRecord;
  std::unordered_set<uint64_t>& m_setIds;
  SalvageReport& m_report;
  std::vector<bool> m_vecTold;  // pages of which is known what they are
};

// The page size with which the beginning of the file gives the most records.
uint32_t GuessPageSize(CPageFile& file) {
  constexpr std::array<uint32_t, 8> kSizes = {4096, 1024, 2048, 8192, 16384, 32768, 65536, 512};
  constexpr uint64_t kLookedAt = uint64_t{8} << 20;
  uint32_t uBest = kSizes[0];
  uint64_t u64Most = 0;
  for (const uint32_t uSize : kSizes) {
    file.SetPageSize(uSize);
    SalvageReport report;
    std::unordered_set<uint64_t> setIds;
    CProgress silent(0, false);
    const std::function<void(const StoredRow&, const CacheRecord&)> fnNothing = [](const StoredRow&,
                                                                                   const CacheRecord&) {};
    CSalvage(file, silent, fnNothing, setIds, report)
        .Run(static_cast<uint32_t>(std::min<uint64_t>(file.PageCount(), kLookedAt / uSize)));
    if (report.u64Records > u64Most) {
      u64Most = report.u64Records;
      uBest = uSize;
    }
  }
  return uBest;
}

}  // namespace

bool SalvagePages(const std::string& strFile, CProgress& progress,
                  const std::function<void(const StoredRow&, const CacheRecord&)>& fnRecord,
                  std::unordered_set<uint64_t>& setIds, SalvageReport& report, std::string& strError) {
  CPageFile file;
  if (!file.Open(strFile, strError)) {
    return false;
  }
  report = {};
  report.bHeaderDamaged = !file.HasHeader();
  if (report.bHeaderDamaged) {
    file.SetPageSize(GuessPageSize(file));
    report.bFreeListDamaged = true;
  } else {
    report.bFreeListDamaged = !file.ReadFreeList();
  }
  report.u64Pages = file.PageCount();
  report.u64MissingPages = file.AnnouncedPages() > file.PageCount() ? file.AnnouncedPages() - file.PageCount() : 0;
  CSalvage(file, progress, fnRecord, setIds, report).Run(file.PageCount());
  return true;
}
