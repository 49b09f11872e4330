// The record road under everything at once, with records in memory only: four producers, a destination that answers in
// every wrong way, a sweep and a stop in the middle, a second start and a second life. Afterwards the books must
// balance.
#include "stress_fixture.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kRecordsPerLife = 3000;
#else
constexpr uint64_t kRecordsPerLife = 20000;
#endif
constexpr time_t kStatisticsSeconds = 600;

class StressTest : public CStressTest {
 protected:
  // A statistics line that was printed while everything was at rest.
  std::string StatisticsAtRest() {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
      if (!WaitForRest()) {
        return {};
      }
      const LedgerTotals before = m_ledger.Totals();
      const size_t uCount = m_ledger.StatisticsCount();
      m_clock.Advance(kStatisticsSeconds);
      const std::string strLine = m_ledger.WaitForStatistics(uCount + 1);
      const LedgerTotals after = m_ledger.Totals();
      if (IsAtRest() && before.u64Sends == after.u64Sends && before.Settled() == after.Settled() &&
          before.u64Raced == after.u64Raced && before.u64SendsRefused == after.u64SendsRefused) {
        return strLine;
      }
    }
    return {};
  }

  // The component's own counts agree with what happened outside.
  void ExpectBalance(const std::string& strStatistics) {
    ASSERT_FALSE(strStatistics.empty());
    SCOPED_TRACE(strStatistics);
    const LedgerTotals totals = m_ledger.Totals();
    const auto count = [&](const char* pszName) { return std::stoull("0" + LogField(strStatistics, pszName)); };
    EXPECT_EQ(totals.u64Refused, 0u);
    EXPECT_EQ(count("CountAll") - count("CountAddFail"), totals.u64Accepted);
    EXPECT_EQ(count("mapLogExecData"), totals.Held());
    EXPECT_EQ(totals.u64Delivered + totals.u64Rejected + totals.u64Dropped + count("mapLogExecData"),
              totals.u64Accepted);
    EXPECT_EQ(count("CountSuccess") + count("CountRecvFail") + count("CountSendFail"),
              totals.Settled() + totals.u64Raced);
    EXPECT_EQ(count("CountSendFail"), totals.u64SendsRefused);
    EXPECT_EQ(totals.u64DeliveredTold, totals.u64Delivered);  // all of these came as messages
    EXPECT_LE(totals.u64RejectedTold, totals.u64Rejected);    // the others came as completions
    EXPECT_EQ(totals.u64SentIds, totals.u64Accepted);         // at rest nothing waits to be sent
  }
};

TEST_P(StressTest, TheBooksBalanceThroughASweepAStopAndASecondLife) {
  // Whatever happens, what producers call without end is taken until the stop.
  m_ledger.BeginLife();
  m_host.BeginLife(&m_router);
  ASSERT_TRUE(m_router.DeliverConnect());
  StartProducers(UINT64_MAX);
  ASSERT_TRUE(WaitForSends(kRecordsPerLife / 4));
  m_clock.Advance(kFourHours);  // the sweep meets everything that is in flight
  m_router.ReleaseKeptBack(true);
  ASSERT_TRUE(WaitForSends(kRecordsPerLife / 2));
  m_host.Stop();
  JoinProducers();
  const LedgerTotals stopped = m_ledger.Totals();
  EXPECT_GE(stopped.u64Accepted, stopped.u64SentIds);
  EXPECT_GT(stopped.Held(), 0u);  // the stop came in the middle
  ASSERT_TRUE(WaitUntil([&] { return m_router.IsIdle(); }));

  // The same manager again: nothing that it held is lost, and nothing is counted twice.
  m_host.Start();
  m_router.RetryUndelivered();
  ExpectBalance(StatisticsAtRest());
  EXPECT_GT(m_ledger.Totals().Held(), 0u);  // the ones that are kept back
  m_host.EndLife();
  ExpectNoFault();

  // A second life, into which results for the first one come. What was held is lost with the memory.
  m_clock.Advance(1);  // the host starts no second life within one second
  m_ledger.BeginLife();
  m_host.BeginLife(&m_router);
  ASSERT_TRUE(m_router.DeliverConnect());
  StartProducers(kRecordsPerLife);
  ASSERT_TRUE(WaitForSends(kRecordsPerLife / 2));
  m_clock.Advance(kFourHours);
  m_router.ReleaseKeptBack(false);
  JoinProducers();
  ExpectBalance(StatisticsAtRest());
  EXPECT_EQ(m_ledger.Totals().Held(), 0u);
  m_host.EndLife();
  ASSERT_TRUE(WaitUntil([&] { return m_router.IsIdle(); }));
  ExpectNoFault();
}

INSTANTIATE_TEST_SUITE_P(Seeds, StressTest, ::testing::Values(1U, 20260U, 987654321U),
                         [](const auto& param) { return std::to_string(param.param); });

}  // namespace
