// Every call that can fail does, one after the other: first the Nth alone, then the Nth and all after it, for each N
// until nothing fails any more. The process lives, no sound file is removed, and the books balance in the next life.
#include <sys/resource.h>

#include <filesystem>
#include <fstream>

#include "endurance_fixture.h"
#include "failing_calls.h"
#include "left_files.h"
#include "tests/component/process_state.h"

namespace {

struct FailureCase {
  const char* pszName;
  CallKind kind;
  bool bAndAllAfter;
  uint64_t u64SanitizedStride;  // of N under the sanitizers; every N without
};

void PrintTo(const FailureCase& failure, std::ostream* pStream) {
  *pStream << failure.pszName;
}

class FailureTest : public CEnduranceTest {
 protected:
  FailureTest() {
    constexpr uint64_t kQuickStop = 100000;
    m_clock.SetMicroSleepDivisor(kQuickStop);
    m_log.SetTap([this](const LogLine& line) { LineSeen(line); });
  }
  // What the component says of single records: which id a content has, and whose write failed.
  void LineSeen(const LogLine& line) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (line.strText.starts_with("qmlogcache step1 OK AddDataAction ")) {
      m_mapKey[LogField(line.strText, "u64DataId")] = KeyOf(LogField(line.strText, "strData"));
    } else if (line.strText.starts_with("*qmlogcache InsertExecData Error ") ||
               line.strText.starts_with("*qmlogcache ReInsertExecData Error ") ||
               line.strText.starts_with("*qmlogcache CLogCacheData::LoadExecData Warn AddDataAction iRet[e0010003] ") ||
               line.strText.starts_with("*qmlogcache CLogCacheDb::AddDbData sqlite3_exec_sql error u64DataId[")) {
      m_vecFailedIds.push_back(LogField(line.strText, "u64DataId"));
    } else if (line.strText.starts_with("qmlogcache CLogCacheDb::BackupDbFile ")) {
      m_vecBackups.push_back(line.strText);
    }
  }
  // A file of records that an earlier life left, and one that is damaged.
  void PrepareFiles() {
    std::filesystem::remove_all(m_prefix.CacheDirectory());
    std::filesystem::create_directories(m_prefix.CacheDirectory());
    const std::string strKey = "old" + std::to_string(m_clock.Now());
    WriteCacheFile(m_prefix.CacheFile("OLD"),
                   {{IdOf(1, m_clock.Now() - 1000), 1, 1, "p", "c", 0, "<version=1><end=1><msg=" + strKey + ";x>"}});
    m_books.Told(strKey, true);
    m_mapKey[ToHex(IdOf(1, m_clock.Now() - 1000))] = strKey;
    std::ofstream(m_prefix.CacheFile(kOtherProducerText)) << std::string(8192, '\x5a');
    const std::string strBackup = m_prefix.CacheDirectory() + kOtherProducerText;
    std::ofstream(strBackup + "1.db.zip") << "of an earlier file";
    std::ofstream(strBackup + "2.db.zip") << "of the file before";
  }
  void LiveUnderFailures() {
    constexpr auto kLongEnough = std::chrono::milliseconds(30);
    m_host.Initialize();
    m_host.SetCtx(&m_router);
    m_host.Start();
    for (int i = 0; i < 2; ++i) {
      Produce(kProducer, 100);
      Produce(kOtherProducer, 100);
    }
    m_destination.SetUp(true);
    const auto tEnd = std::chrono::steady_clock::now() + kLongEnough;
    while (m_books.EndedCount() < m_books.Accepted() && std::chrono::steady_clock::now() < tEnd) {
      if (!m_destination.Answer()) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    }
    m_host.EndLife();
    m_destination.Forget();
  }
  // Which accepted records are neither ended nor on disk, and whose failed write was logged, may be gone.
  void NoteLoggedFailures() {
    const std::lock_guard<std::mutex> guard(m_mutex);
    for (const std::string& strId : m_vecFailedIds) {
      m_books.MayBeDropped(m_mapKey[strId], "a write or a queue that failed and was logged");
    }
    m_vecFailedIds.clear();
  }
  // What the life under failures has left is whole, and the next life delivers it.
  void ExpectTheNextLifeToFindEverything(uint64_t u64Nth, size_t uMostBackups = 1) {
    NoteLoggedFailures();
    ExpectBackups(uMostBackups, u64Nth);
    EXPECT_EQ(OrphansIn(m_prefix.CacheDirectory()), std::vector<std::string>{}) << u64Nth;
    // The next life finds what this one left. The damaged file is put out of its way if it still stands.
    if (std::ifstream(m_prefix.CacheFile(kOtherProducerText)).peek() == '\x5a') {
      std::filesystem::remove(m_prefix.CacheFile(kOtherProducerText));
    }
    const std::set<std::string> setHeld = LookAt(m_prefix.CacheDirectory(), m_prefix.Root() + "/scratch").setInFiles;
    m_clock.Advance(1);
    BeginConnectedLife();
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (!AllEnded(setHeld) && std::chrono::steady_clock::now() < guard) {
      if (!m_destination.Answer()) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    }
    EXPECT_TRUE(AllEnded(setHeld)) << u64Nth;
    m_host.EndLife();
    m_destination.Forget();
    m_clock.Advance(1);
    ExpectBackups(0, u64Nth);
    const Balance balance = m_books.Close({});
    EXPECT_EQ(balance.vecLost, std::vector<std::string>{}) << u64Nth;
    EXPECT_EQ(balance.vecInvented, std::vector<std::string>{}) << u64Nth;
  }
  // At most that many since the last look, and none but of the file that is damaged.
  void ExpectBackups(size_t uMost, uint64_t u64Nth) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    EXPECT_LE(m_vecBackups.size(), uMost) << u64Nth;
    for (const std::string& strLine : m_vecBackups) {
      EXPECT_NE(strLine.find(kOtherProducerText), std::string::npos) << u64Nth << ": " << strLine;
    }
    m_vecBackups.clear();
  }
  bool AllEnded(const std::set<std::string>& setKeys) {
    for (const std::string& strKey : setKeys) {
      if (!m_books.HasEnded(strKey)) {
        return false;
      }
    }
    return true;
  }

  std::mutex m_mutex;                           // guards everything below
  std::map<std::string, std::string> m_mapKey;  // by the id's text
  std::vector<std::string> m_vecFailedIds;
  std::vector<std::string> m_vecBackups;
};

class NthFailureTest : public FailureTest, public ::testing::WithParamInterface<FailureCase> {
 protected:
  // Returns whether the failure came.
  bool FailOnce(uint64_t u64Nth) {
    const FailureCase& failure = GetParam();
    PrepareFiles();
    bool bCame = false;
    {
      const CFailingCalls failing(failure.kind, u64Nth, failure.bAndAllAfter);
      LiveUnderFailures();
      bCame = CFailingCalls::Count() >= u64Nth;
    }
    // A damaged file whose removal fails is met once more.
    ExpectTheNextLifeToFindEverything(u64Nth, failure.kind == CallKind::Directory ? 2 : 1);
    return bCame;
  }
};

TEST_P(NthFailureTest, TheProcessLivesNoSoundFileGoesAndTheBooksBalance) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  const uint64_t u64Stride = GetParam().u64SanitizedStride;
#else
  constexpr uint64_t u64Stride = 1;
#endif
  uint64_t u64Failures = 0;
  const size_t uFilesBefore = CountOpenFiles();
  for (uint64_t u64Nth = 1; FailOnce(u64Nth) && !HasFailure(); u64Nth += u64Stride) {
    ++u64Failures;
  }
  EXPECT_GT(u64Failures, 0u);
  if (!GetParam().bAndAllAfter && GetParam().kind != CallKind::Queue) {
    EXPECT_TRUE(m_books.Close({}).mapDropped.empty());  // one failure costs no record
  }
  EXPECT_EQ(CountOpenFiles(), uFilesBefore);
  std::cout << u64Failures << " failures of " << GetParam().pszName << ": " << m_books.Close({}).Text() << std::endl;
}

// Leaves the process that many descriptors beside those it has.
class CDescriptorLimit {
 public:
  explicit CDescriptorLimit(rlim_t uMore) {
    getrlimit(RLIMIT_NOFILE, &m_before);
    rlimit limit = m_before;
    limit.rlim_cur = CountOpenFiles() + uMore;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~CDescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }
  CDescriptorLimit(const CDescriptorLimit&) = delete;
  CDescriptorLimit& operator=(const CDescriptorLimit&) = delete;

 private:
  rlimit m_before{};
};

TEST_F(FailureTest, WithFewDescriptorsTheProcessLivesAndTheBooksBalance) {
  constexpr rlim_t kMoreThanEnough = 16;
  for (rlim_t uMore = 0; uMore < kMoreThanEnough && !HasFailure(); ++uMore) {
    PrepareFiles();
    {
      const CDescriptorLimit limit(uMore);
      LiveUnderFailures();
    }
    ExpectTheNextLifeToFindEverything(uMore);
  }
  std::cout << "0 to 15 free descriptors: " << m_books.Close({}).Text() << std::endl;
}

INSTANTIATE_TEST_SUITE_P(
    Calls, NthFailureTest,
    ::testing::Values(
        FailureCase{"Sqlite", CallKind::Sqlite, false, 1}, FailureCase{"SqliteForGood", CallKind::Sqlite, true, 1},
        FailureCase{"File", CallKind::File, false, 17}, FailureCase{"FileForGood", CallKind::File, true, 17},
        FailureCase{"Directory", CallKind::Directory, false, 1},
        FailureCase{"DirectoryForGood", CallKind::Directory, true, 1}, FailureCase{"Zlib", CallKind::Zlib, false, 1},
        FailureCase{"ZlibForGood", CallKind::Zlib, true, 1}, FailureCase{"Event", CallKind::Event, false, 1},
        FailureCase{"EventForGood", CallKind::Event, true, 1}, FailureCase{"Queue", CallKind::Queue, false, 1},
        FailureCase{"QueueForGood", CallKind::Queue, true, 1}, FailureCase{"Thread", CallKind::Thread, false, 1},
        FailureCase{"ThreadForGood", CallKind::Thread, true, 1}, FailureCase{"Payload", CallKind::Payload, false, 1}),
    [](const auto& param) { return std::string(param.param.pszName); });

}  // namespace
