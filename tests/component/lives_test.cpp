// Many lives in one process with cache files, and what they leave behind.
#include <algorithm>
#include <fstream>

#include "cache_file_fixture.h"
#include "process_state.h"

namespace {

class LivesTest : public CCacheFileTest {
 protected:
  // One record of the life before is delivered, one of this life's two stays for the next.
  void RunLife(int iLife) {
    const size_t uBefore = m_router.SentCount();
    BeginConnectedLife();
    FileRecord(10100, "delivered in life " + std::to_string(iLife));
    ASSERT_TRUE(Succeeded(m_router.Deliver(10203, kOtherProducer, "left by life " + std::to_string(iLife))));
    const size_t uRecords = iLife == 0 ? 2 : 3;
    ASSERT_TRUE(m_router.WaitForSent(uBefore + uRecords));
    const std::string strLeft = "<msg=left by life " + std::to_string(iLife) + ">";
    const std::vector<SentMessage> vecSent = m_router.Sent();
    for (size_t u = uBefore; u < vecSent.size(); ++u) {
      if (!vecSent[u].strText.ends_with(strLeft)) {
        EXPECT_TRUE(Succeeded(m_router.DeliverResult(vecSent[u].u64DataId, 0))) << vecSent[u].strText;
      }
    }
    m_host.EndLife();
    m_clock.Advance(1);
  }
};

class LivesFlowTest : public LivesTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(LivesFlowTest, TwentyLivesHandOnTheirRecordsAndLeaveNothingElse) {
  constexpr int kLives = 20;
  m_prefix.Configure("dataflowflag = " + std::string(GetParam()) + "\n");
  RunLife(0);
  const size_t uOpenFiles = CountOpenFiles();
  for (int i = 1; i <= kLives; ++i) {
    RunLife(i);
    ASSERT_EQ(CountOpenFiles(), uOpenFiles) << i;
    ASSERT_EQ(OrphansIn(m_prefix.CacheDirectory()), std::vector<std::string>{}) << i;
  }
  EXPECT_TRUE(Rows().empty());
  const std::vector<CacheRow> vecLeft = Rows(kOtherProducerText);
  ASSERT_EQ(vecLeft.size(), 1u);
  EXPECT_TRUE(vecLeft[0].strData.ends_with("<msg=left by life 20>"));
  EXPECT_EQ(m_router.SentCount(), static_cast<size_t>(2 + 3 * kLives));
  const std::vector<std::string> vecNames = NamesIn(m_prefix.CacheDirectory());
  EXPECT_TRUE(std::none_of(vecNames.begin(), vecNames.end(), [](const std::string& strName) {
    return strName.ends_with("-journal") || strName.ends_with(".zip");
  }));
  ExpectNoWarning();
}

INSTANTIATE_TEST_SUITE_P(DataFlow, LivesFlowTest, ::testing::Values("0", "1"),
                         [](const auto& param) { return std::string(param.param); });

TEST_F(LivesTest, RepairedFilesLeaveTwoBackupsAndNoSideFilesOfTheirOwn) {
  constexpr int kLives = 4;
  BeginLife();
  m_host.EndLife();
  const size_t uOpenFiles = CountOpenFiles();
  const std::string strFile = m_prefix.CacheFile(kProducerText);
  for (int i = 0; i < kLives; ++i) {
    for (const char* pszSuffix : {"", "-wal", "-journal"}) {
      std::ofstream(strFile + pszSuffix, std::ios::binary) << std::string(8192, '\x5a');
    }
    m_clock.Advance(1);
    BeginLife();
    FileRecord();
    EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1, m_clock.Now())}));
    m_host.EndLife();
    EXPECT_EQ(CountOpenFiles(), uOpenFiles);
  }
  std::vector<std::string> vecNames = NamesIn(m_prefix.CacheDirectory());
  const std::string strSender = kProducerText;
  std::erase_if(vecNames, [&](const std::string& strName) {
    return strName == strSender + ".db-wal" || strName == strSender + ".db-shm";
  });
  EXPECT_EQ(vecNames, (std::vector<std::string>{strSender + ".db", strSender + "1.db.zip", strSender + "2.db.zip"}));
}

}  // namespace
