// Single writes, batches, deletes, and repairs.
#include <cerrno>
#include <chrono>
#include <future>
#include <numeric>
#include <thread>

#include "tests/unit/cachefile/cachefile_fixture.h"

namespace {

using Ids = std::vector<unsigned long long>;

constexpr char kInsert[] = "insert into logcache";

size_t RowsOf(const std::string& strSql) {
  size_t uRows = 0;
  for (size_t uAt = strSql.find("'prod'"); uAt != std::string::npos; uAt = strSql.find("'prod'", uAt + 1)) {
    ++uRows;
  }
  return uRows;
}

// The statement inserts with that data type.
bool InsertsWithType(std::string_view svSql, int iDataType) {
  return svSql.find(kInsert) != std::string_view::npos &&
         svSql.find("'combo', " + std::to_string(iDataType) + ", '") != std::string_view::npos;
}

class WritingTest : public CacheFileTest {
 protected:
  std::string Backup() const { return Path("cache/sender1.db.zip"); }
};

TEST_F(WritingTest, ANewObjectHasTakenOverWhatItWasInitialisedWithAndTouchedNoDisk) {
  const CLogCacheFile plain;
  EXPECT_TRUE(plain.GetLogCacheFile().IsEmpty());
  EXPECT_EQ(m_strFile, m_file.GetLogCacheFile().View());
  EXPECT_EQ(1000U, m_peer.CountLimit());
  EXPECT_EQ("sender", m_peer.FileName().View());
  EXPECT_EQ(m_strDirectory, m_peer.CachePath());
  EXPECT_FALSE(Exists(m_strFile));
}

TEST_F(WritingTest, AnEmptyFileNameGivesThePathOfTheBareExtension) {
  CLogCacheFile file;
  EXPECT_TRUE(file.InitFile(1, "/dir/", ""));
  EXPECT_EQ("/dir/.db", file.GetLogCacheFile().View());
}

TEST_F(WritingTest, TwelveHundredRecordsMakeThreeInserts) {
  m_file.BatchBegin();
  for (unsigned long long u64Id = 1; u64Id <= 1200; ++u64Id) {
    ASSERT_EQ(0, BatchAdd(m_file, u64Id));
    ASSERT_EQ(u64Id % 500, m_file.BatchCount());
  }
  EXPECT_EQ(0, m_file.BatchEnd());
  EXPECT_EQ(0U, m_file.BatchCount());
  std::vector<size_t> vecRows;
  for (const std::string& strSql : CStorageFaults::Statements(kInsert)) {
    vecRows.push_back(RowsOf(strSql));
  }
  EXPECT_EQ((std::vector<size_t>{500, 500, 200}), vecRows);
  Ids expected(1200);
  std::iota(expected.begin(), expected.end(), 1);
  EXPECT_EQ(expected, IdsOf(m_strFile));
}

TEST_F(WritingTest, LargePayloadsFlushABatchBeforeItIsFull) {
  const CPString strBig(std::string(size_t{33} << 20, 'x'));
  m_file.BatchBegin();
  EXPECT_EQ(0, BatchAdd(m_file, 1, strBig));
  EXPECT_EQ(1U, m_file.BatchCount());
  EXPECT_EQ(0, BatchAdd(m_file, 2, strBig));
  EXPECT_EQ(0U, m_file.BatchCount());
  EXPECT_EQ((Ids{1, 2}), IdsOf(m_strFile));
}

TEST_F(WritingTest, EndingAnEmptyBatchTouchesNoFile) {
  m_file.BatchBegin();
  EXPECT_EQ(0, m_file.BatchEnd());
  EXPECT_EQ(0, m_file.BatchExecute());
  EXPECT_FALSE(Exists(m_strFile));
}

TEST_F(WritingTest, BeginningABatchForgetsWhatWasCollected) {
  EXPECT_EQ(0, BatchAdd(m_file, 1));
  m_file.BatchBegin();
  EXPECT_EQ(0, BatchAdd(m_file, 2));
  EXPECT_EQ(0, m_file.BatchEnd());
  EXPECT_EQ(Ids{2}, IdsOf(m_strFile));
}

TEST_F(WritingTest, ARecordWhoseFirstInsertFailsIsStoredAsBase64) {
  CStorageFaults::SetExecHook([](std::string_view svSql) { return InsertsWithType(svSql, 0) ? SQLITE_ERROR : 0; });
  EXPECT_EQ(0, Add(m_file, 1));
  m_file.BatchBegin();
  EXPECT_EQ(0, BatchAdd(m_file, 2));
  EXPECT_EQ(0, m_file.BatchEnd());
  EXPECT_EQ((std::vector<std::string>{"1|1|ZGF0YQ==", "2|1|ZGF0YQ=="}),
            CShell(m_strFile).Run("select dataid, datatype, data from logcache order by dataid"));
}

TEST_F(WritingTest, ARecordWithAZeroByteIsStoredWholeAsBase64) {
  EXPECT_EQ(0, Add(m_file, 1, CPString("ab\0cd", 5)));
  EXPECT_EQ(std::vector<std::string>{"1|YWIAY2Q="}, CShell(m_strFile).Run("select datatype, data from logcache"));
}

TEST_F(WritingTest, ARecordThatASoundFileRefusesTwiceIsDropped) {
  EXPECT_EQ(0, Add(m_file, 1));
  EXPECT_EQ(0, Add(m_file, 1, "other"));
  m_file.BatchBegin();
  EXPECT_EQ(0, BatchAdd(m_file, 2));
  EXPECT_EQ(0, BatchAdd(m_file, 1));
  EXPECT_EQ(0, m_file.BatchEnd());
  EXPECT_EQ(0U, m_file.BatchCount());
  EXPECT_EQ(std::vector<std::string>{"1|data"}, CShell(m_strFile).Run("select dataid, data from logcache"));
  EXPECT_FALSE(Exists(Backup()));
}

TEST_F(WritingTest, ADamagedFileIsBackedUpAndTheRecordWrittenToANewOne) {
  m_directory.Write("cache/sender.db", NoDatabase());
  EXPECT_EQ(0, Add(m_file, 7));
  EXPECT_EQ(std::vector<std::string>{"7|1"}, CShell(m_strFile).Run("select dataid, datatype from logcache"));
  EXPECT_TRUE(Exists(Backup()));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, kLogLifecycle,
      "qmlogcache CLogCacheDb::BackupDbFile strDbFile[" + m_strFile + "] strZipName[" + Path("cache/sender") + "]"));
}

TEST_F(WritingTest, ABatchRepairsADamagedFileToo) {
  EXPECT_EQ(0, Add(m_file, 1));
  DamageRows(m_strFile);
  m_file.BatchBegin();
  EXPECT_EQ(0, BatchAdd(m_file, 7));
  EXPECT_EQ(0, BatchAdd(m_file, 8));
  EXPECT_EQ(0, m_file.BatchEnd());
  EXPECT_EQ((Ids{7, 8}), IdsOf(m_strFile));
  EXPECT_TRUE(Exists(Backup()));
}

TEST_F(WritingTest, ARepairThatCannotWriteEitherGivesItsError) {
  m_directory.Write("cache/sender.db", NoDatabase());
  CStorageFaults::SetExecHook([](std::string_view svSql) { return svSql.starts_with(kInsert) ? SQLITE_FULL : 0; });
  EXPECT_EQ(kStatusInsertFailed, Add(m_file, 7));
  EXPECT_TRUE(Exists(Backup()));
}

TEST_F(WritingTest, WithoutADirectoryTheWritesErrorIsTheResult) {
  std::filesystem::remove(Path("cache"));
  EXPECT_EQ(kStatusNoConnection, Add(m_file, 1));
  m_file.BatchBegin();
  EXPECT_EQ(0, BatchAdd(m_file, 2));
  EXPECT_EQ(kStatusNoConnection, m_file.BatchEnd());
  EXPECT_EQ(0U, m_file.BatchCount());
  for (const LogLine& line : CLogCapture::Lines()) {
    EXPECT_EQ(kLogWarning, line.iLevel) << line.strText;  // no backup was made
  }
}

TEST_F(WritingTest, WithoutDescriptorsNothingIsRemoved) {
  EXPECT_EQ(0, Add(m_file, 1));
  {
    const CNoDescriptors none;
    EXPECT_EQ(kStatusNoConnection, Add(m_file, 2));
  }
  EXPECT_FALSE(Exists(Backup()));
  EXPECT_EQ(Ids{1}, IdsOf(m_strFile));
}

TEST_F(WritingTest, AFileThatCannotBeLookedAtIsNeitherBackedUpNorWrittenAnew) {
  EXPECT_EQ(0, Add(m_file, 1));
  EXPECT_EQ(0, Add(m_file, 2));
  CStorageFaults::SetStatHook([this](std::string_view svPath) { return svPath == m_strFile ? EACCES : 0; });
  EXPECT_EQ(kStatusNoConnection, Add(m_file, 3));
  CStorageFaults::SetStatHook(nullptr);
  EXPECT_FALSE(Exists(Backup()));
  EXPECT_EQ((Ids{1, 2}), IdsOf(m_strFile));
}

TEST_F(WritingTest, ABusyFileIsWaitedForAndNotTakenForDamaged) {
  EXPECT_EQ(0, Add(m_file, 1));
  for (const bool bLogged : {false, true}) {  // the second connection to the file has moved it to the log
    const unsigned long long u64Id = bLogged ? 5 : 3;
    std::promise<void> writing;
    std::future<int> result;
    {
      CShell shell(m_strFile);
      shell.Run("begin immediate");
      shell.Run("insert into logcache values (" + std::to_string(u64Id - 1) + ", 0, 0, '', '', 0, '', null, null)");
      result = std::async(std::launch::async, [&] {
        writing.set_value();
        return Add(m_file, u64Id);
      });
      writing.get_future().wait();
      EXPECT_EQ(std::future_status::timeout, result.wait_for(std::chrono::milliseconds(300)));
      shell.Run("commit");
    }
    EXPECT_EQ(0, result.get());
  }
  EXPECT_EQ((Ids{1, 2, 3, 4, 5}), IdsOf(m_strFile));
  EXPECT_FALSE(Exists(Backup()));
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(WritingTest, AnIdleShellOnTheFileIsNoHindrance) {
  EXPECT_EQ(0, Add(m_file, 1));
  CShell shell(m_strFile);
  EXPECT_EQ(std::vector<std::string>{"1"}, shell.Run("select count(*) from logcache"));
  EXPECT_EQ(0, Add(m_file, 2));
  EXPECT_EQ(0, m_file.DeleteCacheData(1));
  EXPECT_EQ(std::vector<std::string>{"2"}, shell.Run("select dataid from logcache"));
}

TEST_F(WritingTest, EveryHundredthDeleteCompactsTheFileAlsoWhenItFails) {
  CStorageFaults::SetExecHook([](std::string_view svSql) { return svSql.starts_with("delete") ? SQLITE_ERROR : 0; });
  EXPECT_EQ(kStatusDeleteFailed, m_file.DeleteCacheData(1));
  EXPECT_EQ(1U, m_peer.DeleteCount());
  CStorageFaults::SetExecHook(nullptr);
  for (unsigned long long u64Id = 2; u64Id <= 99; ++u64Id) {
    ASSERT_EQ(0, m_file.DeleteCacheData(u64Id));
  }
  EXPECT_TRUE(CStorageFaults::Statements("VACUUM").empty());
  EXPECT_EQ(0, m_file.DeleteCacheData(100));
  EXPECT_EQ(1U, CStorageFaults::Statements("VACUUM").size());
  EXPECT_EQ(0U, m_peer.DeleteCount());
  EXPECT_EQ(0, m_file.DeleteCacheData(101));
  EXPECT_EQ(1U, CStorageFaults::Statements("VACUUM").size());
}

TEST_F(WritingTest, ACoveringWriteTakesTheOldestRowsPlace) {
  EXPECT_EQ(0, Add(m_file, 1));
  EXPECT_EQ(0, Add(m_file, 2));
  EXPECT_EQ(0, Add(m_file, 3, "data", 1));
  EXPECT_EQ((Ids{2, 3}), IdsOf(m_strFile));
}

TEST_F(WritingTest, TheFileStaysWhenItsObjectGoes) {
  MakeFile("other", 2);
  EXPECT_EQ((Ids{1, 2}), IdsOf(Path("cache/other.db")));
}

TEST_F(WritingTest, TwoObjectsOnOneFileAtOnceLoseNothing) {
  constexpr unsigned long long kEach = 60;
  CLogCacheFile other;
  other.InitFile(1000, m_strDirectory, "sender");
  const auto write = [](CLogCacheFile& file, unsigned long long u64First) {
    int iFailures = 0;
    for (unsigned long long i = 0; i < kEach; ++i) {
      iFailures += Add(file, u64First + i) == 0 ? 0 : 1;
      std::list<_CacheExecData> listRead;
      iFailures += file.ParseCacheData(file.GetLogCacheFile(), listRead) ? 0 : 1;
    }
    return iFailures;
  };
  auto first = std::async(std::launch::async, [&] { return write(m_file, 1); });
  auto second = std::async(std::launch::async, [&] { return write(other, 1 + kEach); });
  EXPECT_EQ(0, first.get());
  EXPECT_EQ(0, second.get());
  EXPECT_EQ(2 * kEach, IdsOf(m_strFile).size());
  EXPECT_TRUE(LoggedExactly({}));
}

}  // namespace
