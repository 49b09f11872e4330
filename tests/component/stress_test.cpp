// The record road under everything at once: four producers, a destination that answers in every wrong way, a sweep and
// a stop in the middle, a second start and a second life. Afterwards the books must balance.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <iostream>
#include <random>
#include <thread>

#include "log_recorder.h"
#include "payloads.h"
#include "plugin_host.h"
#include "replaced_clock.h"
#include "stress_router.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kRecordsPerLife = 3000;
#else
constexpr uint64_t kRecordsPerLife = 20000;
#endif
constexpr int kProducers = 4;
constexpr uint64_t kMostWaiting = 500;  // records that producers may be ahead of the sends
constexpr uint64_t kMostHeldAtRest = 40;
constexpr time_t kFourHours = 14400;
constexpr time_t kStatisticsSeconds = 600;

class StressTest : public ::testing::TestWithParam<uint32_t> {
 protected:
  StressTest() : m_log(CLogRecorder::Get()), m_clock(CReplacedClock::Get()), m_router(m_ledger, GetParam()) {
    m_log.Reset();
    m_clock.Reset();
    std::cout << "seed " << GetParam() << std::endl;
    m_log.SetTap([this](const LogLine& line) { m_ledger.LineSeen(line); });
  }
  void TearDown() override {
    m_bProduce = false;
    JoinProducers();
    m_host.EndLife();
    EXPECT_EQ(m_log.OpenChannels(), 0);
    EXPECT_EQ(m_log.LinesAfterClose(), 0u);
    m_log.Reset();
  }

  // Producers that call until the router says that the component takes no more, or until u64Most records in all.
  void StartProducers(uint64_t u64Most) {
    m_bProduce = true;
    m_u64Begun = 0;
    for (int i = 0; i < kProducers; ++i) {
      m_vecProducers.emplace_back([this, i, u64Most] { Produce(i, u64Most); });
    }
  }
  void JoinProducers() {
    for (std::thread& thread : m_vecProducers) {
      thread.join();
    }
    m_vecProducers.clear();
  }

  void Produce(int iProducer, uint64_t u64Most) {
    std::mt19937 random(GetParam() * 31 + static_cast<uint32_t>(iProducer));
    while (m_bProduce && m_u64Begun++ < u64Most) {
      if (!ProduceOne(iProducer, random)) {
        return;
      }
      while (m_bProduce && IsFarAhead() && m_router.ReceiverOf(10100) != nullptr) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }
  bool IsFarAhead() {
    const LedgerTotals totals = m_ledger.Totals();
    return totals.u64Accepted > totals.u64SentIds + kMostWaiting;
  }

  // False when the router no longer delivers.
  bool ProduceOne(int iProducer, std::mt19937& random) {
    static constexpr std::array<uint32_t, 18> kTypes = {10100, 10101, 10102, 10103, 10110, 10111, 10112, 10113, 10200,
                                                        10201, 10202, 10203, 10210, 10211, 10212, 10213, 10300, 20300};
    const uint32_t uMsgType = kTypes[random() % kTypes.size()];
    const bool bCombo = uMsgType == 10300 || uMsgType == 20300;
    const GUID sender = {static_cast<uint32_t>(random() % 5), 0, 0, {}};
    const uint32_t uKind = random() % 100;
    if (uKind == 0) {  // no record at all
      const std::optional<Answer> answer = m_router.Deliver(uMsgType, sender, bCombo ? "short" : "");
      if (answer) {
        EXPECT_EQ(answer->uRet, bCombo ? 0xA0010003 : 0xA0010002);
        m_ledger.MalformedAnswered();
      }
      return answer.has_value();
    }
    const size_t uFill = uKind == 1 ? 20000 : random() % 200;
    const std::string strContent =
        std::to_string(iProducer) + "-" + std::to_string(m_u64Content++) + ":" + std::string(uFill, 'x');
    const std::string strPayload = bCombo ? ComboPayload({1, static_cast<int32_t>(random() % 14), 0, "product",
                                                          uKind % 2 == 0 ? "c" : "", strContent})
                                          : strContent;
    const std::optional<Answer> answer = m_router.Deliver(uMsgType, sender, strPayload);
    if (!answer) {
      return false;
    }
    EXPECT_EQ(answer->iReplies, 1);
    m_ledger.ProducerAnswered(strContent, answer->uRet == 0);
    return true;
  }

  template <typename T>
  [[nodiscard]] bool WaitUntil(T condition) {
    const auto deadline = std::chrono::steady_clock::now() + kStressGuard;
    while (!condition()) {
      if (std::chrono::steady_clock::now() >= deadline) {
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
  // A stretch without any send may be single-send mode waiting for a result that is kept back: the agent connects anew.
  [[nodiscard]] bool WaitForSends(uint64_t u64Ids) {
    constexpr int kPatience = 100;
    int iUnchanged = 0;
    uint64_t u64Sends = 0;
    return WaitUntil([&] {
      const LedgerTotals totals = m_ledger.Totals();
      iUnchanged = totals.u64Sends == u64Sends ? iUnchanged + 1 : 0;
      u64Sends = totals.u64Sends;
      if (iUnchanged >= kPatience) {
        iUnchanged = 0;
        m_router.DeliverConnect();
      }
      return totals.u64SentIds >= u64Ids;
    });
  }
  // Every record was sent, and settled but for those of which a result is kept back. The broadcasts end single-send
  // mode, which would wait for these.
  [[nodiscard]] bool WaitForRest() {
    return WaitUntil([&] {
      m_router.DeliverConnect();
      return IsAtRest();
    });
  }
  bool IsAtRest() {
    if (!m_router.IsIdle()) {
      return false;
    }
    const LedgerTotals totals = m_ledger.Totals();
    if (totals.u64SentIds != totals.u64Accepted || totals.Held() > kMostHeldAtRest) {
      return false;
    }
    const std::set<uint64_t> setHeld = m_ledger.UnsettledIds();
    const std::set<uint64_t> setKeptBack = m_router.KeptBackIds();
    return std::includes(setKeptBack.begin(), setKeptBack.end(), setHeld.begin(), setHeld.end()) && m_router.IsIdle();
  }

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
  void ExpectNoFault() {
    for (const std::string& strFault : m_ledger.Faults()) {
      ADD_FAILURE() << strFault;
    }
  }

  static constexpr std::chrono::seconds kStressGuard{80};

  CLogRecorder& m_log;
  CReplacedClock& m_clock;
  CStressLedger m_ledger;
  CStressRouter m_router;
  CPluginHost m_host;
  std::vector<std::thread> m_vecProducers;
  std::atomic<bool> m_bProduce{false};
  std::atomic<uint64_t> m_u64Begun{0};
  std::atomic<uint64_t> m_u64Content{0};
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
