// What cannot be looked at or read, for want of memory or because the disk fails, is no damage, and nothing is removed.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <fstream>

#include "db/sqlite_wrapper.h"
#include "platform/storage_sync.h"
#include "tests/unit/db/storage_fixture.h"

namespace {

using Ids = std::vector<unsigned long long>;

// While it lives, SQLite's reads of one page of a file fail.
class CUnreadablePage {
 public:
  CUnreadablePage(const std::string& strFile, unsigned int uPage, int iErrno) {
    constexpr off_t kPageSize = 4096;
    struct stat info {};
    if (stat(strFile.c_str(), &info) != 0) {
      throw std::runtime_error("stat");
    }
    s_uInode = info.st_ino;
    s_iOffset = static_cast<off_t>(uPage - 1) * kPageSize;
    s_iErrno = iErrno;
    s_uFailures = 0;
    Install(reinterpret_cast<sqlite3_syscall_ptr>(Read));
  }
  ~CUnreadablePage() { Install(nullptr); }
  CUnreadablePage(const CUnreadablePage&) = delete;
  CUnreadablePage& operator=(const CUnreadablePage&) = delete;
  // Reads that have failed.
  static unsigned int Failures() { return s_uFailures; }

 private:
  static void Install(sqlite3_syscall_ptr pfnRead) {
    sqlite3_vfs* pVfs = sqlite3_vfs_find("unix");
    if (pVfs->xSetSystemCall(pVfs, "pread64", pfnRead) != SQLITE_OK) {
      throw std::runtime_error("xSetSystemCall");
    }
  }
  static ssize_t Read(int iFile, void* pBuffer, size_t uSize, off_t iOffset) {
    struct stat info {};
    if (fstat(iFile, &info) == 0 && info.st_ino == s_uInode && iOffset <= s_iOffset &&
        s_iOffset < iOffset + static_cast<off_t>(uSize)) {
      ++s_uFailures;
      errno = s_iErrno;
      return -1;
    }
    return pread(iFile, pBuffer, uSize, iOffset);
  }

  static inline ino_t s_uInode = 0;
  static inline off_t s_iOffset = 0;
  static inline int s_iErrno = 0;
  static inline unsigned int s_uFailures = 0;
};

// While it lives, SQLite may take no more than that much memory above what it has now.
class CSqliteHeapLimit {
 public:
  explicit CSqliteHeapLimit(int64_t i64Headroom) { sqlite3_hard_heap_limit64(sqlite3_memory_used() + i64Headroom); }
  ~CSqliteHeapLimit() { sqlite3_hard_heap_limit64(0); }
  CSqliteHeapLimit(const CSqliteHeapLimit&) = delete;
  CSqliteHeapLimit& operator=(const CSqliteHeapLimit&) = delete;
};

class FailingDiskTest : public StorageTest {
 protected:
  int Insert(unsigned long long u64Id) {
    return m_db.AddDbData(m_strFile.c_str(), u64Id, 0, 0, kDataPlain, "p", "c", "d", 0);
  }
  DbCheck Examine() { return m_db.ExamineDbFile(m_strFile.c_str()); }
  // A file with nothing in its log, whose table is a tree of two levels if there are many rows; gives the number of its pages.
  unsigned int MakeTree(unsigned int uRows, size_t uBytes = 1000) {
    std::list<_CacheDbData> listRows;
    for (unsigned int i = 1; i <= uRows; ++i) {
      listRows.push_back({i, 0, 0, kDataPlain, "p", "c", std::string(uBytes, 'x').c_str()});
    }
    EXPECT_EQ(0, m_db.AddDbData(m_strFile.c_str(), listRows));
    CShell shell(m_strFile);
    shell.Run("PRAGMA journal_mode=WAL");
    shell.Run("PRAGMA wal_checkpoint(TRUNCATE)");
    return static_cast<unsigned int>(std::stoul(shell.Run("PRAGMA page_count").at(0)));
  }

  CLogCacheDb m_db;
  const std::string m_strFile = Path("a.db");
};

TEST_F(FailingDiskTest, AFileThatCannotBeLookedAtKeepsItsLog) {
  for (unsigned long long u64Id = 1; u64Id <= 5; ++u64Id) {
    ASSERT_EQ(0, Insert(u64Id));
  }
  const std::string strLog = BytesOf(m_strFile + "-wal");
  ASSERT_NE("", strLog);
  CStorageFaults::SetStatHook([this](std::string_view svPath) { return svPath == m_strFile ? EACCES : 0; });
  EXPECT_EQ(kStatusNoConnection, Insert(6));
  EXPECT_EQ(DbCheck::Unknown, Examine());
  CStorageFaults::SetStatHook(nullptr);
  EXPECT_TRUE(strLog == BytesOf(m_strFile + "-wal"));
  EXPECT_EQ((Ids{1, 2, 3, 4, 5}), IdsOf(m_strFile));
}

TEST_F(FailingDiskTest, ASingleLookThatFailsCostsNoRow) {
  Ids expected;
  unsigned long long u64Id = 0;
  while (u64Id < 5) {
    ASSERT_EQ(0, Insert(++u64Id));
    expected.push_back(u64Id);
  }
  bool bFailed = true;
  unsigned int uInserted = 0;
  for (unsigned int uLook = 1; bFailed; ++uLook) {
    ASSERT_LT(uLook, 100U);
    unsigned int uLooks = 0;
    CStorageFaults::SetStatHook(
        [&](std::string_view svPath) { return svPath.starts_with(m_strFile) && ++uLooks == uLook ? EACCES : 0; });
    if (Insert(++u64Id) == 0) {
      expected.push_back(u64Id);
      ++uInserted;
    }
    CStorageFaults::SetStatHook(nullptr);
    bFailed = uLooks >= uLook;
    CShell shell(m_strFile);
    ASSERT_EQ(std::vector<std::string>{std::to_string(expected.size())}, shell.Run("select count(*) from logcache"))
        << uLook;
    shell.Run("PRAGMA journal_mode=DELETE");
    shell.Run("PRAGMA journal_mode=WAL");
    ASSERT_EQ(0, Insert(++u64Id));  // something in the log for the next turn
    expected.push_back(u64Id);
  }
  EXPECT_GT(uInserted, 0U);
  EXPECT_EQ(expected, IdsOf(m_strFile));
}

TEST_F(FailingDiskTest, SideFilesBesideAFileThatIsAlreadyThereStay) {
  ASSERT_EQ(0, Insert(1));
  ASSERT_EQ(0, Insert(2));
  const std::string strLog = BytesOf(m_strFile + "-wal");
  ASSERT_NE("", strLog);
  sqlite3* pDb = nullptr;
  EXPECT_EQ(SQLITE_CANTOPEN, sqlite3_createdb(m_strFile.c_str(), &pDb));
  EXPECT_EQ(nullptr, pDb);
  EXPECT_TRUE(strLog == BytesOf(m_strFile + "-wal"));
}

TEST_F(FailingDiskTest, AJournalThatIsNoRegularFileIsRefusedWithoutBlocking) {
  ASSERT_EQ(0, Insert(1));
  const std::string strJournal = m_strFile + "-journal";
  const auto refuses = [&] {
    EXPECT_EQ(kStatusNoConnection, Insert(2));
    EXPECT_EQ(DbCheck::Unknown, Examine());
    EXPECT_TRUE(Exists(strJournal));
    std::filesystem::remove(strJournal);
    EXPECT_EQ(Ids{1}, IdsOf(m_strFile));
  };
  ASSERT_EQ(0, mkfifo(strJournal.c_str(), 0600));
  refuses();
  std::filesystem::create_directory(strJournal);
  refuses();
  std::filesystem::create_symlink(m_directory.Write("target", NoDatabase()), strJournal);
  refuses();
  EXPECT_EQ(NoDatabase(), BytesOf(Path("target")));
}

TEST_F(FailingDiskTest, APageThatCannotBeReadIsNoDamage) {
  const unsigned int uPages = MakeTree(20);
  ASSERT_GT(uPages, 5U);
  const std::string strBytes = BytesOf(m_strFile);
  for (const int iErrno : {EIO, ENOMEM, ESTALE}) {
    for (unsigned int uPage = 1; uPage <= uPages; ++uPage) {
      const CUnreadablePage unreadable(m_strFile, uPage, iErrno);
      EXPECT_EQ(DbCheck::Unknown, Examine()) << uPage;
      EXPECT_NE(0U, CUnreadablePage::Failures()) << uPage;
    }
  }
  EXPECT_EQ(DbCheck::Sound, Examine());
  EXPECT_TRUE(strBytes == BytesOf(m_strFile));
}

TEST_F(FailingDiskTest, APageOfALongPayloadThatCannotBeReadIsNoDamage) {
  const unsigned int uPages = MakeTree(2, 20000);
  ASSERT_GT(uPages, 10U);
  for (const int iErrno : {EIO, ENOMEM, ESTALE}) {
    for (unsigned int uPage = 1; uPage <= uPages; ++uPage) {
      const CUnreadablePage unreadable(m_strFile, uPage, iErrno);
      EXPECT_EQ(DbCheck::Unknown, Examine()) << uPage;
      EXPECT_NE(0U, CUnreadablePage::Failures()) << uPage;
    }
  }
  EXPECT_EQ(DbCheck::Sound, Examine());
}

TEST_F(FailingDiskTest, ADamagedHeaderIsNoDamageWhereTheRestCannotBeRead) {
  const unsigned int uPages = MakeTree(20);
  std::fstream(m_strFile, std::ios::in | std::ios::out | std::ios::binary) << "no database";
  EXPECT_EQ(DbCheck::Damaged, Examine());
  const CUnreadablePage unreadable(m_strFile, uPages, EIO);
  EXPECT_EQ(DbCheck::Unknown, Examine());
}

TEST_F(FailingDiskTest, WantOfMemoryIsNoDamage) {
  constexpr int64_t kMoreThanEnough = int64_t{1} << 20;
  constexpr int64_t kStep = 2048;
  MakeTree(100);
  EXPECT_EQ(0, m_db.AddDbData(m_strFile.c_str(), 101, 0, 0, kDataPlain, "p", "c", std::string(200000, 'x').c_str(), 0));
  unsigned int uUnknown = 0;
  DbCheck check = DbCheck::Unknown;
  for (int64_t i64Headroom = kStep; i64Headroom <= kMoreThanEnough; i64Headroom += kStep) {
    const CSqliteHeapLimit limit(i64Headroom);
    check = Examine();
    ASSERT_NE(DbCheck::Damaged, check) << i64Headroom;
    uUnknown += check == DbCheck::Unknown ? 1 : 0;
  }
  EXPECT_GT(uUnknown, 10U);
  EXPECT_EQ(DbCheck::Sound, check);
}

TEST_F(FailingDiskTest, DamageThatOnlyTheChecksRowsTellOfIsDamage) {
  // The row's payload lies on a chain of pages of its own, which the check follows and no step of it reads.
  ASSERT_EQ(0, m_db.AddDbData(m_strFile.c_str(), 1, 0, 0, kDataPlain, "p", "c", std::string(20000, 'x').c_str(), 0));
  ASSERT_EQ(0, Insert(2));
  std::fstream stream(m_strFile, std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(2 * 4096);  // the chain's first page begins with the number of its second
  stream.write("\0\0\0\0", 4).flush();
  const std::vector<std::string> vecRows = CShell(m_strFile).Run("PRAGMA quick_check");
  ASSERT_EQ(1U, vecRows.size());
  ASSERT_NE("ok", vecRows[0]);
  EXPECT_EQ(DbCheck::Damaged, Examine());
}

TEST_F(FailingDiskTest, DamageThatIsGoneAtTheSecondLookWasNone) {
  ASSERT_EQ(0, Insert(1));
  ASSERT_EQ(0, Insert(2));
  const auto answers = [this](std::vector<int> vecResults) {
    size_t uCalls = 0;
    CStorageFaults::SetExecHook(
        [&](std::string_view) { return uCalls < vecResults.size() ? vecResults[uCalls++] : SQLITE_OK; });
    const DbCheck check = Examine();
    CStorageFaults::SetExecHook(nullptr);
    EXPECT_EQ(vecResults.size(), uCalls);
    return check;
  };
  EXPECT_EQ(DbCheck::Sound, answers({SQLITE_CORRUPT}));
  EXPECT_EQ(DbCheck::Unknown, answers({SQLITE_CORRUPT, SQLITE_NOMEM}));
  EXPECT_EQ(DbCheck::Damaged, answers({SQLITE_CORRUPT, SQLITE_CORRUPT}));
  EXPECT_EQ(DbCheck::Unknown, answers({SQLITE_NOMEM}));
}

TEST_F(FailingDiskTest, AFileThatCannotBeMovedToTheLogForNowIsWrittenByTheJournalAtFullStrength) {
  constexpr std::string_view kWeaker = "PRAGMA synchronous=NORMAL";
  const int iSync = QmGetStorageSync();
  ASSERT_EQ(0, QmSetStorageSync(1));
  ASSERT_EQ(0, Insert(1));
  int iResult = SQLITE_BUSY;
  CStorageFaults::SetExecHook([&iResult](std::string_view svSql) {
    return svSql.find("journal_mode=WAL") == std::string_view::npos ? SQLITE_OK : iResult;
  });
  EXPECT_EQ(0, Insert(2));
  iResult = SQLITE_LOCKED;
  EXPECT_EQ(0, Insert(3));
  iResult = SQLITE_IOERR;
  EXPECT_EQ(kStatusNoConnection, Insert(4));
  EXPECT_FALSE(Exists(m_strFile + "-wal"));
  EXPECT_TRUE(CStorageFaults::Statements(kWeaker).empty());
  CStorageFaults::SetExecHook(nullptr);
  EXPECT_EQ(0, Insert(5));
  EXPECT_TRUE(Exists(m_strFile + "-wal"));
  EXPECT_EQ(1U, CStorageFaults::Statements(kWeaker).size());
  EXPECT_EQ((Ids{1, 2, 3, 5}), IdsOf(m_strFile));
  EXPECT_EQ(0, QmSetStorageSync(iSync));
}

}  // namespace
