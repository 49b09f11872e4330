#include "tools/qmcache/cache_reader.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "db/log_cache_db.h"
#include "tests/unit/platform/temporary_directory.h"
#include "tools/qmcache/printable.h"
#include "tools/qmcache/read_only_vfs.h"
#include "tools/qmcache/size_text.h"

namespace {

class CacheReaderTest : public testing::Test {
 protected:
  // As the component writes it.
  void Add(unsigned long long u64DataId, const char* pszData = "text") {
    CLogCacheDb db;
    ASSERT_EQ(db.AddDbData(m_strFile.c_str(), u64DataId, 1, 1, 0, "p", "c", pszData, 0), 0);
  }
  // By another process, as the host is one: SQLite knows of a file once in a process.
  void RunShell(const std::string& strSql) const {
    ASSERT_EQ(std::system(("sqlite3 '" + m_strFile + "' \"" + strSql + "\" >/dev/null").c_str()), 0);
  }
  std::vector<int64_t> KeysFrom(CCacheReader& reader) {
    std::vector<int64_t> vecKeys;
    std::vector<StoredRow> vecRows;
    std::vector<std::string> vecUnreadable;
    do {
      EXPECT_EQ(reader.Next(CCacheReader::Columns::All, vecRows, vecUnreadable), FileState::Sound) << reader.Reason();
      for (const StoredRow& row : vecRows) {
        vecKeys.push_back(row.i64RowId);
      }
    } while (!vecRows.empty());
    return vecKeys;
  }
  size_t FilesBeside() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(m_directory.Path()), {}));
  }

  CTemporaryDirectory m_directory;
  const std::string m_strFile = m_directory.Path("file.db");
};

TEST_F(CacheReaderTest, ReadsRowsThatComeWhileItReads) {
  Add(1);
  Add(2);
  CCacheReader reader(m_strFile);
  ASSERT_EQ(reader.Open(), FileState::Sound) << reader.Reason();
  std::vector<StoredRow> vecRows;
  std::vector<std::string> vecUnreadable;
  ASSERT_EQ(reader.NextRow(vecRows, vecUnreadable), FileState::Sound);
  RunShell("INSERT INTO logcache VALUES (3, 0, 1, '', '', 0, '', NULL, NULL)");
  EXPECT_EQ(KeysFrom(reader), (std::vector<int64_t>{2, 3}));
}

TEST_F(CacheReaderTest, AnOpenReaderLetsTheLogBeShortened) {
  for (unsigned long long u64 = 1; u64 < 10; ++u64) {
    Add(u64);
  }
  CCacheReader reader(m_strFile);
  ASSERT_EQ(reader.Open(), FileState::Sound);
  std::vector<StoredRow> vecRows;
  std::vector<std::string> vecUnreadable;
  ASSERT_EQ(reader.NextRow(vecRows, vecUnreadable), FileState::Sound);
  RunShell("DELETE FROM logcache WHERE dataid > 8; PRAGMA wal_checkpoint(TRUNCATE)");
  EXPECT_EQ(std::filesystem::file_size(m_strFile + "-wal"), 0U);
  EXPECT_EQ(KeysFrom(reader).size(), 7U);
}

TEST_F(CacheReaderTest, SeeksAndFindsByKey) {
  for (const unsigned long long u64 : {5ULL, 7ULL, 9ULL}) {
    Add(u64);
  }
  CCacheReader reader(m_strFile);
  ASSERT_EQ(reader.Open(), FileState::Sound);
  reader.Seek(6);
  EXPECT_EQ(KeysFrom(reader), (std::vector<int64_t>{7, 9}));
  reader.Seek(std::numeric_limits<int64_t>::min());
  EXPECT_EQ(KeysFrom(reader).size(), 3U);
  int64_t i64Found = 0;
  EXPECT_TRUE(reader.FindLast(8, i64Found));
  EXPECT_EQ(i64Found, 7);
  EXPECT_FALSE(reader.FindLast(4, i64Found));
}

TEST_F(CacheReaderTest, TheLargestKeyIsRead) {
  Add(static_cast<unsigned long long>(std::numeric_limits<int64_t>::max()));
  CCacheReader reader(m_strFile);
  ASSERT_EQ(reader.Open(), FileState::Sound);
  EXPECT_EQ(KeysFrom(reader).size(), 1U);
}

TEST_F(CacheReaderTest, ADamagedHeaderAndAnEmptyFileAreToldApart) {
  m_directory.Write("file.db", std::string(5000, 'x'));
  EXPECT_EQ(CCacheReader(m_strFile).Open(), FileState::Damaged);
  m_directory.Write("file.db", "");
  EXPECT_EQ(CCacheReader(m_strFile).Open(), FileState::Empty);
  EXPECT_EQ(CCacheReader(m_directory.Path("none.db")).Open(), FileState::Unreadable);
  EXPECT_EQ(FilesBeside(), 1U);
}

TEST_F(CacheReaderTest, TheVfsMakesWritesAndDeletesNothing) {
  sqlite3* pDb = nullptr;
  const int iFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  EXPECT_NE(sqlite3_open_v2(m_strFile.c_str(), &pDb, iFlags, ReadOnlyVfsName()), SQLITE_OK);
  sqlite3_close(pDb);
  EXPECT_EQ(FilesBeside(), 0U);
  Add(1);
  const size_t uFiles = FilesBeside();
  ASSERT_EQ(sqlite3_open_v2(m_strFile.c_str(), &pDb, iFlags, ReadOnlyVfsName()), SQLITE_OK);
  EXPECT_NE(sqlite3_exec(pDb, "DELETE FROM logcache", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(pDb);
  sqlite3_vfs* pVfs = sqlite3_vfs_find(ReadOnlyVfsName());
  EXPECT_NE(pVfs->xDelete(pVfs, m_strFile.c_str(), 0), SQLITE_OK);
  EXPECT_EQ(FilesBeside(), uFiles);
}

TEST(PrintableTest, NoTerminalActsUponIt) {
  EXPECT_EQ(Printable("plain ä\\"), "plain ä\\\\");
  EXPECT_EQ(Printable("\x1b[31m\n\t\x7f\xff"), "\\x1b[31m\\n\\t\\x7f\\xff");
  EXPECT_EQ(Printable("\u0085"), "\\xc2\\x85");
  EXPECT_EQ(Printable("a\u202eb\u2066\ufeff"), "a\\xe2\\x80\\xaeb\\xe2\\x81\\xa6\\xef\\xbb\\xbf");
}

TEST(SizeTextTest, HasOneDigitBehindThePoint) {
  EXPECT_EQ(SizeText(0), "0 B");
  EXPECT_EQ(SizeText(1023), "1023 B");
  EXPECT_EQ(SizeText(1024), "1.0 KiB");
  EXPECT_EQ(SizeText(1048575), "1.0 MiB");
  EXPECT_EQ(SizeText(uint64_t{5} << 40), "5.0 TiB");
}

}  // namespace
