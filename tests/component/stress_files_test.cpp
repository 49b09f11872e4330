// The record road with cache files: lives that write at intake and lives that write at the stop follow each other, each
// but the last one is cut short, and what one life leaves the next one takes over. After each of them every record that
// a producer was told to be accepted is settled or in a cache file, and none is both.
#include <dlfcn.h>

#include "cache_files.h"
#include "payloads.h"
#include "stress_fixture.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kRecordsPerLife = 400;
#else
constexpr uint64_t kRecordsPerLife = 1000;
#endif
constexpr int kLives = 6;

class StressFilesTest : public CStressTest {
 protected:
  StressFilesTest() {
    constexpr int kSurvivesAKill = 1;
    constexpr uint64_t kManyLoads = 20000;
    // The host's word on how durable a write is; a sync for each record would only make this longer.
    const auto pfnSetSync = reinterpret_cast<int (*)(int)>(dlsym(GetLoadedPlugin().hLibrary, "QmSetStorageSync"));
    EXPECT_EQ(pfnSetSync(kSurvivesAKill), 0);
    m_clock.SetSleepDivisor(kManyLoads);  // reloads come all the time, in the middle of everything
    m_u64MostWaiting = 100;
  }

  void BeginLife(int iLife) {
    m_prefix.Configure(iLife % 2 == 0 ? "" : "dataflowflag = 1\n");
    if (iLife == 0) {
      m_ledger.BeginLife();
    } else {
      m_clock.Advance(1);  // the host starts no second life within one second
      m_ledger.ContinueInNextLife();
    }
    m_host.BeginLife(&m_router);
    ASSERT_TRUE(m_router.DeliverConnect());
    m_router.RetryUndelivered();  // results for the lives before
  }
  // Records in all cache files, each of which must stand in its own sender's.
  std::multiset<std::string> ContentsOnDisk() {
    std::multiset<std::string> setContents;
    for (const std::string& strName : DatabasesIn(m_prefix.CacheDirectory())) {
      const std::string strSender = strName.substr(0, strName.size() - 3);
      for (const CacheRow& row : ReadCacheFile(m_prefix.CacheDirectory() + strName)) {
        EXPECT_NE(row.strData.find("<guid=" + strSender + ">"), std::string::npos) << strName;
        setContents.insert(ContentOf(row.strData));
      }
    }
    return setContents;
  }
  void ExpectDiskHoldsWhatIsOpen() {
    const std::multiset<std::string> setOnDisk = ContentsOnDisk();
    const std::multiset<std::string> setOpen = m_ledger.UnsettledContents();
    EXPECT_EQ(setOnDisk.size(), setOpen.size());
    EXPECT_TRUE(setOnDisk == setOpen);
    EXPECT_EQ(m_ledger.Totals().Held(), setOpen.size());
    EXPECT_EQ(m_ledger.Totals().u64Refused, 0u);
    EXPECT_EQ(OrphansIn(m_prefix.CacheDirectory()), std::vector<std::string>{});
  }
};

TEST_P(StressFilesTest, EveryAcceptedRecordIsSettledOrInACacheFileAfterEachLife) {
  for (int i = 0; i < kLives - 1; ++i) {
    SCOPED_TRACE("life " + std::to_string(i));
    BeginLife(i);
    const uint64_t u64SentBefore = m_ledger.Totals().u64SentIds;
    StartProducers(UINT64_MAX);
    ASSERT_TRUE(WaitForSends(u64SentBefore + kRecordsPerLife / 2));
    m_clock.Advance(kFourHours);  // the sweep meets everything that is in flight
    m_router.ReleaseKeptBack(true);
    ASSERT_TRUE(WaitForSends(u64SentBefore + kRecordsPerLife));
    m_host.Stop();
    JoinProducers();
    ASSERT_TRUE(WaitUntil([&] { return m_router.IsIdle(); }));
    m_host.EndLife();
    EXPECT_GT(m_ledger.Totals().Held(), 0u);  // the stop came in the middle
    ExpectDiskHoldsWhatIsOpen();
    ExpectNoFault();
  }

  BeginLife(kLives - 1);
  StartProducers(kRecordsPerLife);
  m_router.ReleaseKeptBack(false);
  JoinProducers();
  ASSERT_TRUE(WaitForRest());
  EXPECT_EQ(m_ledger.Totals().Held(), 0u);
  m_host.EndLife();
  ASSERT_TRUE(WaitUntil([&] { return m_router.IsIdle(); }));
  ExpectDiskHoldsWhatIsOpen();
  EXPECT_EQ(m_ledger.Totals().u64DeliveredTold, m_ledger.Totals().u64Delivered);
  EXPECT_EQ(m_ledger.Totals().u64SentIds, m_ledger.Totals().u64Accepted);
  ExpectNoFault();
}

INSTANTIATE_TEST_SUITE_P(Seeds, StressFilesTest, ::testing::Values(3U, 4711U, 1234567U),
                         [](const auto& param) { return std::to_string(param.param); });

}  // namespace
