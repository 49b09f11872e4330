// A database file as its pages, read without SQLite and without trust in any of them: sizes, page numbers and chains are
// checked against the file before they are used.
//
// The format's parts that matter here: pages of one size, numbered from 1; the first begins with a header of 100 bytes; a
// leaf of a table holds cells (length of the row, key, row); what of a row does not fit stands in a chain of pages; pages
// that are not in use hang on a list of their own.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_PAGE_FILE_H_
#define QMLOGCACHE_TOOLS_QMCACHE_PAGE_FILE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

// A cell of a leaf: its key, and the row's bytes with what stands in a chain.
struct PageCell {
  int64_t i64RowId = 0;
  std::string strPayload;
  std::vector<uint32_t> vecChain;  // the pages of the chain
};

class CPageFile {
 public:
  CPageFile() = default;
  ~CPageFile();
  CPageFile(const CPageFile&) = delete;
  CPageFile& operator=(const CPageFile&) = delete;

  // False with a reason when the file cannot be opened.
  [[nodiscard]] bool Open(const std::string& strPath, std::string& strError);
  // Whether the header is one of a database, and its page size possible. Without it the page size must be set.
  bool HasHeader() const { return m_bHeader; }
  uint32_t PageSize() const { return m_uPageSize; }
  void SetPageSize(uint32_t uPageSize);
  // Pages in the file, and how many the header speaks of (0 without a header).
  uint32_t PageCount() const { return m_uPages; }
  uint32_t AnnouncedPages() const { return m_uAnnounced; }

  // Marks the pages that the list of free pages names: what stands in them was deleted. False when the list is damaged,
  // which it also is when it names a page that the schema or a page above the leaves names, too; then none is marked.
  [[nodiscard]] bool ReadFreeList();
  bool IsFree(uint32_t uPage) const { return m_vecFree[uPage]; }

  enum class Kind { TableLeaf, Interior, Other, Unreadable };
  // Reads a page and tells what it is. Interior: of the pages above the leaves.
  Kind ReadPage(uint32_t uPage);
  // Of the leaf that was read last: calls fnCell with each cell that can be followed to its end, and counts the others.
  void ForEachCell(const std::function<void(PageCell&&)>& fnCell, uint64_t& u64Broken);

 private:
  bool TakeFreeList();
  bool NamesPagesInUse();
  // Of the page that was read last, one above the leaves.
  void ForEachChild(const std::function<void(uint64_t)>& fnChild) const;
  bool ReadAt(uint32_t uPage, std::string& strPage) const;
  bool ReadCell(size_t uAt, PageCell& cell);
  bool ReadChain(uint32_t uFirst, uint64_t u64Length, PageCell& cell);

  int m_iFile = -1;
  uint64_t m_u64Size = 0;
  bool m_bHeader = false;
  uint32_t m_uPageSize = 4096;
  uint32_t m_uUsable = 4096;  // bytes of a page before its reserved tail
  uint32_t m_uReserved = 0;
  uint32_t m_uPages = 0;
  uint32_t m_uAnnounced = 0;
  uint32_t m_uFirstFree = 0;
  uint32_t m_uFreeCount = 0;
  std::vector<bool> m_vecFree;
  uint32_t m_uPage = 0;  // that was read last
  std::string m_strPage;
  uint64_t m_u64ChainBudget = 0;  // pages of chains that may still be read: a hostile file ends some time
};

struct RowValue {
  enum class Type { Null, Integer, Text, Other };
  Type type = Type::Null;
  int64_t i64 = 0;
  std::string_view svText;  // points into the payload
};

// The values of a row. False when it is no whole row.
[[nodiscard]] bool ReadRowValues(std::string_view svPayload, std::vector<RowValue>& vecValues);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_PAGE_FILE_H_
