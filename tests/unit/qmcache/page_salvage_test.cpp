#include "tools/qmcache/page_salvage.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/unit/platform/temporary_directory.h"

namespace {

TEST(PageSalvageTest, ThePageThatSqliteKeepsForItsLocksIsNotLost) {
  CTemporaryDirectory directory;
  const std::string strFile = directory.Path("file.db");
  ASSERT_EQ(std::system(("sqlite3 '" + strFile + "' 'PRAGMA page_size=65536; CREATE TABLE t (x)' >/dev/null").c_str()),
            0);
  const uint64_t u64Used = std::filesystem::file_size(strFile) / 65536;
  std::filesystem::resize_file(strFile, (uint64_t{1} << 30) + 65536);  // it ends with that page
  CProgress progress(0, false);
  SalvageReport report;
  std::unordered_set<uint64_t> setIds;
  std::string strError;
  ASSERT_TRUE(SalvagePages(
      strFile, progress, [](const StoredRow&, const CacheRecord&) {}, setIds, report, strError))
      << strError;
  EXPECT_EQ(report.u64Pages, 16385U);
  EXPECT_EQ(report.u64LostPages, 16385 - u64Used - 1);
}

}  // namespace
