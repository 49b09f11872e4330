// Brings out the records of a damaged cache file: every leaf page is looked at, whether the tree above it is there or
// not, and a row counts when it holds a record whose text carries the row's own id. Deleted rows, in pages that the
// list of free pages names, stay deleted.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_PAGE_SALVAGE_H_
#define QMLOGCACHE_TOOLS_QMCACHE_PAGE_SALVAGE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>

#include "tools/qmcache/cache_record.h"
#include "tools/qmcache/progress.h"

struct SalvageReport {
  uint64_t u64Records = 0;
  uint64_t u64Repeated = 0;      // records whose id had come before
  uint64_t u64BrokenRows = 0;    // a row is there and cannot be read to its end, or holds no record
  uint64_t u64Pages = 0;         // in the file
  uint64_t u64MissingPages = 0;  // that the header speaks of and the file lacks
  uint64_t u64LostPages = 0;     // nothing on them can be told, or the disk does not give them
  bool bHeaderDamaged = false;
  bool bFreeListDamaged = false;  // records that had been deleted may be among the ones found

  [[nodiscard]] bool IsWhole() const {
    return u64BrokenRows == 0 && u64MissingPages == 0 && u64LostPages == 0 && !bHeaderDamaged && !bFreeListDamaged;
  }
};

// Calls fnRecord with each record and the row it stood in, in the order of the pages, but not with those whose ids are
// in setIds, to which it adds the others'. False with a reason when the file cannot be opened. Throws Interruption and
// what fnRecord throws.
[[nodiscard]] bool SalvagePages(const std::string& strFile, CProgress& progress,
                                const std::function<void(const StoredRow&, const CacheRecord&)>& fnRecord,
                                std::unordered_set<uint64_t>& setIds, SalvageReport& report, std::string& strError);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_PAGE_SALVAGE_H_
