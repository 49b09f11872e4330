// A month of traffic in a minute: outages, silent destinations, restarts, reloads, statistics, sweeps, and a clock that
// is set in both directions. At its end the books balance, and the process holds no more than at its beginning.
#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "endurance_fixture.h"
#include "tests/component/process_state.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kOwnAllocator = false;
#else
constexpr bool kOwnAllocator = true;
#endif
constexpr time_t kHour = 3600;
constexpr int kHoursPerDay = 24;
constexpr size_t kMebibyte = size_t{1} << 20;

class DaysTest : public CEnduranceTest {
 protected:
  DaysTest() : m_random(kSeed) {
    constexpr int kSurvivesAKill = 1;
    constexpr uint64_t kManyLoads = 20000;
    // The host's word on how durable a write is; a sync for each record would only make this longer.
    const auto pfnSetSync = reinterpret_cast<int (*)(int)>(dlsym(GetLoadedPlugin().hLibrary, "QmSetStorageSync"));
    EXPECT_EQ(pfnSetSync(kSurvivesAKill), 0);
    m_clock.SetSleepDivisor(kManyLoads);  // reloads come every few milliseconds
    m_destination.SetManners({.uRefused = 5, .uRejected = 10, .uRetry = 30, .uSilent = 20});
    m_log.SetTap([this](const LogLine& line) { LineSeen(line); });
  }
  unsigned int Roll(unsigned int uSides) {
    return std::uniform_int_distribution<unsigned int>(0, uSides - 1)(m_random);
  }
  void LineSeen(const LogLine& line) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (line.strText.starts_with("qmlogcache CLogCacheMgr::PrintfStat ")) {
      ++m_iStatistics;
      m_strStatistics = line.strText;
    } else if (line.strText.starts_with(kLoaded)) {
      ++m_iLoads;
    } else if (line.strText.starts_with("**") || line.strText.starts_with("*qmlogcache CLogCache") ||
               line.strText.starts_with("*qmlogcache InsertExecData") ||
               line.strText.starts_with("*qmlogcache ReInsertExecData")) {
      m_setUnexpected.insert(line.strText.substr(0, 200));
    }
  }
  void BeginDay() {
    if (m_tLastStart != 0) {
      m_host.EndLife();
      m_destination.Forget();
    }
    // The host starts no life in a second that is not later than the last start's.
    if (m_clock.Now() <= m_tLastStart) {
      m_clock.Advance(m_tLastStart + 1 - m_clock.Now());
    }
    m_tLastStart = m_clock.Now();
    m_host.BeginLife(&m_router);
    if (m_destination.IsUp()) {
      static_cast<void>(m_router.DeliverConnect());
    }
  }
  void LiveAnHour() {
    constexpr GUID aSenders[] = {kProducer, kOtherProducer};
    constexpr auto kBreath = std::chrono::milliseconds(8);
    if (Roll(30) == 0) {
      m_destination.SetUp(!m_destination.IsUp());
    }
    for (unsigned int uCount = Roll(20); uCount > 0; --uCount) {
      const size_t uFiller = Roll(100) == 0 ? 100000 : Roll(3000);
      m_u64Bytes += uFiller;
      EXPECT_TRUE(Produce(aSenders[Roll(2)], uFiller));
    }
    const auto tBreath = std::chrono::steady_clock::now() + kBreath;
    while (m_books.EndedCount() < m_books.Accepted() && std::chrono::steady_clock::now() < tBreath) {
      if (!m_destination.Answer()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    switch (Roll(100)) {
      case 0:
        m_clock.Advance(-2 * kHour);
        break;
      case 1:
        m_clock.Advance(kHoursPerDay * kHour);
        break;
      default:
        m_clock.Advance(kHour);
    }
  }
  // Once more statistics: what the component itself says that it holds.
  std::string NextStatistics() {
    const int iBefore = Statistics();
    m_clock.Advance(kHour);
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (Statistics() == iBefore && std::chrono::steady_clock::now() < guard) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_strStatistics;
  }
  int Statistics() {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_iStatistics;
  }
  // A load that comes every few milliseconds has a file open for a moment, or for as long as its thread is kept waiting.
  static size_t OpenFilesAtRest() {
    constexpr int kLooks = 100;
    size_t uLeast = CountOpenFiles();
    for (int i = 1; i < kLooks; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      uLeast = std::min(uLeast, CountOpenFiles());
    }
    return uLeast;
  }
  uintmax_t BytesOnDisk() const {
    uintmax_t uBytes = 0;
    for (const std::string& strName : NamesIn(m_prefix.CacheDirectory())) {
      uBytes += std::filesystem::file_size(m_prefix.CacheDirectory() + strName);
    }
    return uBytes;
  }

  std::mt19937 m_random;
  time_t m_tLastStart = 0;
  uint64_t m_u64Bytes = 0;  // of payload so far

  std::mutex m_mutex;  // guards everything below
  int m_iStatistics = 0;
  int m_iLoads = 0;
  std::string m_strStatistics;
  std::set<std::string> m_setUnexpected;
};

TEST_F(DaysTest, ThirtyDaysLoseNothingAndLeaveNothing) {
  constexpr int kDays = 30;
  constexpr size_t kFewRecords = 2 * kMebibyte;
  BeginDay();
  ASSERT_TRUE(Produce(kProducer, 10));
  ASSERT_TRUE(AnswerUntilAllHaveEnded());
  const size_t uFilesBefore = OpenFilesAtRest();
  const size_t uMemoryBefore = mallinfo2().uordblks;
  for (int iDay = 0; iDay < kDays; ++iDay) {
    for (int iHour = 0; iHour < kHoursPerDay; ++iHour) {
      LiveAnHour();
    }
    BeginDay();
  }
  m_destination.SetUp(true);
  ASSERT_TRUE(AnswerUntilAllHaveEnded());
  const std::string strStatistics = NextStatistics();
  EXPECT_NE(
      strStatistics.find("mapLogExecData[0] LowQueueData[0] NormalQueueData[0] HighQueueData[0] RealQueueData[0]"),
      std::string::npos)
      << strStatistics;
  const size_t uMemoryAfter = mallinfo2().uordblks;
  const size_t uFilesAfter = OpenFilesAtRest();
  m_host.EndLife();
  ExpectBooksInOrder("30 days", KeysOnDisk());
  EXPECT_EQ(KeysOnDisk(), std::set<std::string>{});
  std::cout << "payload " << m_u64Bytes / kMebibyte << " MiB, loads " << m_iLoads << ", statistics lines "
            << m_iStatistics << ", open files " << uFilesBefore << " before and " << uFilesAfter
            << " after, memory in use " << uMemoryBefore / 1024 << " KiB before and " << uMemoryAfter / 1024
            << " KiB after, bytes on disk " << BytesOnDisk() << std::endl;
  EXPECT_EQ(uFilesAfter, uFilesBefore);
  if (kOwnAllocator) {
    EXPECT_LT(uMemoryAfter, uMemoryBefore + kFewRecords);  // the test's own books among it
  }
  EXPECT_LT(BytesOnDisk(), 2 * kFewRecords);
  EXPECT_GT(m_u64Bytes, 4 * kFewRecords);
  EXPECT_EQ(m_setUnexpected, std::set<std::string>{});
}

}  // namespace
