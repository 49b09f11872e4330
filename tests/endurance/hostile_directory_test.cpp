// A cache directory in which somebody else has put things. Whatever it is, the records of the other senders are loaded,
// nothing blocks, and nothing outside the directory is touched.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <string_view>

#include "tests/component/cache_file_fixture.h"

namespace {

constexpr char kTable[] =
    "CREATE TABLE logcache (dataid INTEGER NOT NULL PRIMARY KEY, priv INTEGER NOT NULL, msgtype INTEGER NOT NULL, "
    "product VARCHAR(128) NOT NULL, combo VARCHAR(128) NOT NULL, datatype INTEGER NOT NULL, data longtext NOT NULL, "
    "reserved1 INTEGER NULL, reserved2 VARCHAR(256) NULL);";
constexpr uint64_t kOldId = 0x6000000000000001;
constexpr uint64_t kOddId = 0x6100000000000001;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kManyFiles = 500;
#else
constexpr int kManyFiles = 5000;
#endif

void BuildDatabase(const std::string& strFile, const std::string& strSql) {
  sqlite3* pDb = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(strFile.c_str(), &pDb)) << strFile;
  char* pszError = nullptr;
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(pDb, strSql.c_str(), nullptr, nullptr, &pszError)) << pszError;
  sqlite3_free(pszError);
  ASSERT_EQ(SQLITE_OK, sqlite3_close(pDb));
}

std::string InsertOf(uint64_t u64DataId, const std::string& strText) {
  return "insert into logcache values (" + std::to_string(u64DataId) + ", 1, 1, 'p', 'c', 0, '" + strText +
         "', null, null);";
}

std::string ContentsOf(const std::string& strFile) {
  std::ifstream file(strFile, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A rollback journal that undoes nothing and says at its end that strNamed belongs to the same transaction.
void WriteJournalNaming(const std::string& strNamed, const std::string& strFile) {
  constexpr std::string_view kMagic("\xd9\xd5\x05\xf9\x20\xa1\x63\xd7");
  constexpr uint32_t kSectorSize = 512;
  constexpr uint32_t kPageSize = 4096;
  constexpr uint32_t kLockPage = 0x40000000 / kPageSize + 1;
  const auto fnNumber = [](uint32_t u) {
    const uint32_t uBigEndian = htonl(u);
    return std::string(reinterpret_cast<const char*>(&uBigEndian), sizeof(uBigEndian));
  };
  const uint32_t uPages = static_cast<uint32_t>(std::filesystem::file_size(strFile) / kPageSize);
  std::string strJournal =
      std::string(kMagic) + fnNumber(0) + fnNumber(1) + fnNumber(uPages) + fnNumber(kSectorSize) + fnNumber(kPageSize);
  strJournal.resize(kSectorSize);
  const uint32_t uSum = std::accumulate(strNamed.begin(), strNamed.end(), uint32_t{0});
  strJournal += fnNumber(kLockPage) + strNamed + fnNumber(static_cast<uint32_t>(strNamed.size())) + fnNumber(uSum);
  std::ofstream(strFile + "-journal", std::ios::binary) << strJournal << kMagic;
}

class HostileDirectoryTest : public CCacheFileTest {
 protected:
  HostileDirectoryTest() {
    std::filesystem::create_directories(m_prefix.CacheDirectory());
    WriteCacheFile(m_prefix.CacheFile(kOtherProducerText), {{kOldId, 1, 1, "p", "c", 0, "good 1"},
                                                            {kOldId + 1, 1, 1, "p", "c", 0, "good 2"},
                                                            {kOldId + 2, 1, 1, "p", "c", 0, "good 3"}});
  }
  std::string Path(const std::string& strName) const { return m_prefix.CacheDirectory() + strName; }
  // A life that loads the directory, twice. The records of the good file are sent, and with them those of vecOdd.
  void ExpectGoodRecordsAnd(std::vector<std::string> vecOdd) {
    constexpr uint64_t kFast = 10000;
    m_clock.SetSleepDivisor(kFast);
    BeginConnectedLife();
    ASSERT_TRUE(WaitForLoads(2));
    vecOdd.insert(vecOdd.end(), {"good 1", "good 2", "good 3"});
    ASSERT_TRUE(m_router.WaitForSent(vecOdd.size()));
    m_host.EndLife();
    std::vector<std::string> vecSent = SentTexts();
    std::sort(vecSent.begin(), vecSent.end());
    std::sort(vecOdd.begin(), vecOdd.end());
    EXPECT_EQ(vecOdd, vecSent);
    EXPECT_EQ(3u, Rows(kOtherProducerText).size());
  }
  bool IsReported(const std::string& strName) {
    for (const LogLine& line : m_log.Lines("*qmlogcache CLogCacheFile::ParseCacheData GetAllDbData Error[")) {
      if (LogField(line.strText, "strFileName") == Path(strName)) {
        return true;
      }
    }
    return false;
  }
};

TEST_F(HostileDirectoryTest, ALinkToADatabaseElsewhereIsNeitherReadNorTouched) {
  const std::string strOutside = m_prefix.Root() + "/outside.db";
  BuildDatabase(strOutside, kTable + InsertOf(kOddId, "from outside"));
  const std::string strBefore = ContentsOf(strOutside);
  ASSERT_EQ(0, symlink(strOutside.c_str(), Path("link.db").c_str()));
  ASSERT_EQ(0, symlink(strOutside.c_str(), m_prefix.CacheFile(kProducerText).c_str()));
  ExpectGoodRecordsAnd({});
  // Nor does a sender whose file is a link write through it.
  m_clock.Advance(1);
  BeginLife();
  FileRecord();
  m_host.EndLife();
  EXPECT_EQ(strBefore, ContentsOf(strOutside));
  EXPECT_FALSE(std::filesystem::exists(strOutside + "-wal"));
}

TEST_F(HostileDirectoryTest, AFifoASocketADeviceAndADirectoryDoNotBlock) {
  ASSERT_EQ(0, mkfifo(Path("fifo.db").c_str(), 0600));
  std::filesystem::create_directory(Path("directory.db"));
  // A device that may be opened even where none may be made.
  std::ofstream(Path("device.db")).close();
  ASSERT_EQ(0, mount("/dev/zero", Path("device.db").c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
  const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string strSocket = m_prefix.Root() + "/data/qmlogcache/s.db";
  ASSERT_LT(strSocket.size(), sizeof(address.sun_path));
  strSocket.copy(address.sun_path, strSocket.size());
  ASSERT_EQ(0, bind(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address))) << strerror(errno);
  ExpectGoodRecordsAnd({});
  for (const char* pszName : {"fifo.db", "device.db", "s.db"}) {
    EXPECT_TRUE(IsReported(pszName)) << pszName;
  }
  EXPECT_FALSE(IsReported("directory.db"));
  close(iSocket);
  umount2(Path("device.db").c_str(), MNT_DETACH);
}

TEST_F(HostileDirectoryTest, AFifoInPlaceOfASideFileDoesNotBlock) {
  for (const char* pszSuffix : {"-journal", "-wal", "-shm"}) {
    const std::string strName = std::string("a") + pszSuffix + ".db";
    BuildDatabase(Path(strName), kTable + InsertOf(kOddId, pszSuffix));
    ASSERT_EQ(0, mkfifo(Path(strName + pszSuffix).c_str(), 0600));
  }
  // SQLite keeps the file without a log to its rollback journal, and the row is read.
  ExpectGoodRecordsAnd({"-wal"});
  EXPECT_TRUE(IsReported("a-journal.db"));
  EXPECT_TRUE(IsReported("a-shm.db"));
}

TEST_F(HostileDirectoryTest, AFileThatAJournalNamesIsNeitherOpenedNorDeleted) {
  const std::string strOutside = m_prefix.Root() + "/outside";
  std::ofstream(strOutside) << std::string("precious\0", 9);
  const std::string strFifo = m_prefix.Root() + "/fifo";
  ASSERT_EQ(0, mkfifo(strFifo.c_str(), 0600));
  const std::string strGoodFile = m_prefix.CacheFile(kOtherProducerText);
  BuildDatabase(Path("a.db"), kTable + InsertOf(kOddId, "a"));
  BuildDatabase(Path("b.db"), kTable + InsertOf(kOddId + 1, "b"));
  BuildDatabase(Path("c.db"), kTable + InsertOf(kOddId + 2, "c"));
  WriteJournalNaming(strOutside, Path("a.db"));
  WriteJournalNaming(strFifo, Path("b.db"));
  WriteJournalNaming(strGoodFile, Path("c.db"));
  // As a sender's own file, to which it writes.
  BuildDatabase(m_prefix.CacheFile(kProducerText), std::string(kTable));
  WriteJournalNaming(strOutside, m_prefix.CacheFile(kProducerText));
  ExpectGoodRecordsAnd({"a", "b", "c"});
  m_clock.Advance(1);
  WriteJournalNaming(strOutside, m_prefix.CacheFile(kProducerText));
  BeginLife();
  FileRecord();
  EXPECT_EQ(1u, Rows().size());
  m_host.EndLife();
  EXPECT_EQ(std::string("precious\0", 9), ContentsOf(strOutside));
  EXPECT_TRUE(std::filesystem::is_fifo(strFifo));
  EXPECT_FALSE(std::filesystem::exists(Path("a.db-journal")));
}

TEST_F(HostileDirectoryTest, ThousandsOfFilesAreLookedAtOneByOne) {
  for (int i = 0; i < kManyFiles; ++i) {
    std::ofstream(Path(std::to_string(i) + ".db")) << "no database";
  }
  ExpectGoodRecordsAnd({});
  EXPECT_GE(m_log.Count("*qmlogcache CLogCacheFile::ParseCacheData GetAllDbData Error["),
            static_cast<size_t>(kManyFiles));
  EXPECT_EQ("no database", ContentsOf(Path(std::to_string(kManyFiles - 1) + ".db")));  // reported, and left as it is
}

TEST_F(HostileDirectoryTest, AViewInPlaceOfTheTableIsNotRead) {
  BuildDatabase(Path("view.db"),
                "create view logcache as with recursive r(n) as (select 1 union all select n + 1 from r) select n as "
                "dataid, 1 as priv, 1 as msgtype, '' as product, '' as combo, 0 as datatype, 'forever' as data from r");
  ExpectGoodRecordsAnd({});
  EXPECT_TRUE(IsReported("view.db"));
}

TEST_F(HostileDirectoryTest, TriggersDoNotAct) {
  const std::string strFile = m_prefix.CacheFile(kProducerText);
  BuildDatabase(strFile, kTable + InsertOf(kOddId, "odd") +
                             "create table trap (x); create trigger t1 before insert on logcache begin insert into "
                             "trap values (1); end; create trigger t2 before delete on logcache begin select "
                             "raise(abort, 'kept'); end; create trigger t3 after insert on logcache begin delete from "
                             "logcache; end;");
  BeginConnectedLife();
  ASSERT_TRUE(m_router.WaitForSent(4));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(kOddId, 0)));
  EXPECT_TRUE(Rows().empty());
  FileRecord();
  EXPECT_EQ(1u, Rows().size());
}

TEST_F(HostileDirectoryTest, WrongTypesAndNegativeIdsAreReadAsTheyAre) {
  BuildDatabase(Path("types.db"),
                "create table logcache (dataid, priv, msgtype, product, combo, datatype, data, extra);"
                "insert into logcache values (x'00ff', 'high', 1.5, null, x'61', 'text', 'blob id', 1);"
                "insert into logcache values (-5, -7, 99999999999999, 'p', 'c', 0, 'negative', 1);"
                "insert into logcache values (null, null, null, null, null, null, null, null);");
  ExpectGoodRecordsAnd({"blob id", "negative"});
}

TEST_F(HostileDirectoryTest, ARowOfAHundredMebibytesIsSent) {
  constexpr size_t kSize = size_t{100} << 20;
  BuildDatabase(Path("long.db"), std::string(kTable) +
                                     "insert into logcache values (7, 1, 1, '', '', 0, replace(hex(zeroblob(" +
                                     std::to_string(kSize / 2) + ")), '0', 'x'), null, null);");
  BeginConnectedLife();
  ASSERT_TRUE(m_router.WaitForSent(4));
  m_host.EndLife();
  std::vector<std::string> vecSent = SentTexts();
  EXPECT_EQ(1,
            std::count_if(vecSent.begin(), vecSent.end(), [](const auto& strText) { return strText.size() == kSize; }));
}

TEST_F(HostileDirectoryTest, BadBase64KeepsItsFileFromLoadingAndNoOther) {
  BuildDatabase(Path("base64.db"),
                std::string(kTable) + "insert into logcache values (7, 1, 1, '', '', 1, '***', null, null);");
  ExpectGoodRecordsAnd({});
  EXPECT_TRUE(IsReported("base64.db"));
}

TEST_F(HostileDirectoryTest, EmptyCutAndForeignFilesAreNoObstacle) {
  BuildDatabase(Path("cut.db"), kTable + InsertOf(kOddId, std::string(20000, 'x')));
  std::filesystem::resize_file(Path("cut.db"), 5000);
  std::ofstream(Path("empty.db")).close();
  std::ofstream(Path("byte.db")) << "x";
  std::ofstream(Path("text.db")) << std::string(10000, 't');
  BuildDatabase(Path("other.db"), "create table other (x)");
  ExpectGoodRecordsAnd({});
  for (const char* pszName : {"cut.db", "text.db", "other.db"}) {
    EXPECT_TRUE(IsReported(pszName)) << pszName;
  }
}

TEST_F(HostileDirectoryTest, AStaleJournalOrLogIsNotTakenForANewFiles) {
  const std::string strFile = m_prefix.CacheFile(kProducerText);
  // The log and the index of another database, and a journal of it.
  sqlite3* pOther = nullptr;
  const std::string strOther = m_prefix.Root() + "/other.db";
  BuildDatabase(strOther, std::string("pragma journal_mode=wal;") + kTable);
  ASSERT_EQ(SQLITE_OK, sqlite3_open(strOther.c_str(), &pOther));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(pOther, InsertOf(kOddId, "stale").c_str(), nullptr, nullptr, nullptr));
  std::filesystem::copy_file(strOther + "-wal", strFile + "-wal");
  sqlite3_close(pOther);
  std::ofstream(strFile + "-journal", std::ios::binary) << "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7" << std::string(600, '\0');
  BeginConnectedLife();
  ASSERT_TRUE(WaitForLoads(1));
  FileRecord();
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1)}));
  m_host.EndLife();
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1)}));
}

TEST_F(HostileDirectoryTest, OddNamesAreFileNamesAndNothingElse) {
  const std::vector<std::string> vecNames = {"a'; drop table logcache; --", "\"quoted\"", "line\nbreak",        "%s%n",
                                             "file:x?mode=memory",          "\xff\xfe",   std::string(240, 'n')};
  std::vector<std::string> vecTexts;
  for (size_t i = 0; i < vecNames.size(); ++i) {
    vecTexts.push_back("odd " + std::to_string(i));
    BuildDatabase(Path(vecNames[i] + ".db"), kTable + InsertOf(kOddId + i, vecTexts.back()));
  }
  // So long that its side files cannot have a name.
  BuildDatabase(Path("m.db"), kTable + InsertOf(kOddId + 100, "too long"));
  std::filesystem::rename(Path("m.db"), Path(std::string(252, 'm') + ".db"));
  BeginConnectedLife();
  ASSERT_TRUE(m_router.WaitForSent(3 + vecNames.size()));
  for (size_t i = 0; i < vecNames.size(); ++i) {
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(kOddId + i, 0)));
    EXPECT_TRUE(ReadCacheFile(Path(vecNames[i] + ".db")).empty()) << i;
  }
  m_host.EndLife();
  EXPECT_TRUE(IsReported(std::string(252, 'm') + ".db"));
  std::vector<std::string> vecSent = SentTexts();
  for (const std::string& strText : vecTexts) {
    EXPECT_EQ(1, std::count(vecSent.begin(), vecSent.end(), strText)) << strText;
  }
}

}  // namespace
