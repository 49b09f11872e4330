#include "stress_fixture.h"

#include <algorithm>
#include <array>
#include <iostream>

#include "payloads.h"

namespace {
constexpr int kProducers = 4;
constexpr uint64_t kMostHeldAtRest = 40;
}  // namespace

CStressTest::CStressTest()
    : m_log(CLogRecorder::Get()), m_clock(CReplacedClock::Get()), m_router(m_ledger, GetParam()) {
  m_log.Reset();
  m_clock.Reset();
  std::cout << "seed " << GetParam() << std::endl;
  m_log.SetTap([this](const LogLine& line) { m_ledger.LineSeen(line); });
}

void CStressTest::TearDown() {
  m_bProduce = false;
  JoinProducers();
  m_host.EndLife();
  EXPECT_EQ(m_log.OpenChannels(), 0);
  EXPECT_EQ(m_log.LinesAfterClose(), 0u);
  m_log.Reset();
}

void CStressTest::StartProducers(uint64_t u64Most) {
  m_bProduce = true;
  m_u64Begun = 0;
  ++m_uProducerSeed;
  for (int i = 0; i < kProducers; ++i) {
    m_vecProducers.emplace_back([this, i, u64Most] { Produce(i, u64Most); });
  }
}

void CStressTest::JoinProducers() {
  for (std::thread& thread : m_vecProducers) {
    thread.join();
  }
  m_vecProducers.clear();
}

void CStressTest::Produce(int iProducer, uint64_t u64Most) {
  std::mt19937 random((GetParam() + m_uProducerSeed) * 31 + static_cast<uint32_t>(iProducer));
  while (m_bProduce && m_u64Begun++ < u64Most) {
    if (!ProduceOne(iProducer, random)) {
      return;
    }
    while (m_bProduce && IsFarAhead() && m_router.ReceiverOf(10100) != nullptr) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
}

bool CStressTest::IsFarAhead() {
  const LedgerTotals totals = m_ledger.Totals();
  return totals.u64Accepted > totals.u64SentIds + m_u64MostWaiting;
}

bool CStressTest::ProduceOne(int iProducer, std::mt19937& random) {
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
  const std::string strPayload =
      bCombo
          ? ComboPayload({1, static_cast<int32_t>(random() % 14), 0, "product", uKind % 2 == 0 ? "c" : "", strContent})
          : strContent;
  const std::optional<Answer> answer = m_router.Deliver(uMsgType, sender, strPayload);
  if (!answer) {
    return false;
  }
  EXPECT_EQ(answer->iReplies, 1);
  m_ledger.ProducerAnswered(strContent, answer->uRet == 0);
  return true;
}

bool CStressTest::WaitForSends(uint64_t u64Ids) {
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

bool CStressTest::WaitForRest() {
  return WaitUntil([&] {
    m_router.DeliverConnect();
    return IsAtRest();
  });
}

bool CStressTest::IsAtRest() {
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

void CStressTest::ExpectNoFault() {
  for (const std::string& strFault : m_ledger.Faults()) {
    ADD_FAILURE() << strFault;
  }
}
