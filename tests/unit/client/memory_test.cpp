// A client whose memory is short once, wherever that may be: nothing is forgotten, and every wait ends.
#include <map>

#include "platform/status_codes.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/allocation_pause.h"
#include "tests/unit/client/client_fixture.h"

namespace {

class ClientMemoryTest : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    m_options.uWindow = 4;
    m_clientOptions.retry_ms = 10 * kPatienceMs;
    m_clientOptions.on_connection = nullptr;
    m_clientOptions.on_result = OnResult;
    m_clientOptions.user = this;
  }

  // What the test itself needs is always there.
  template <typename Function>
  static void Aside(Function fnDo) {
    const CAllocationPause pause;
    fnDo();
  }

  // False: no memory, and not taken.
  bool Try(uint64_t u64Cookie, size_t uLength) {
    qm_client_record record = QM_CLIENT_RECORD_INIT;
    record.data = m_strBytes.data();
    record.length = uLength;
    record.cookie = u64Cookie;
    const int iResult = qm_client_send(m_pClient, &record, kPatienceMs);
    if (iResult != QM_CLIENT_OK && iResult != QM_CLIENT_E_MEMORY) {
      Aside([&] { ADD_FAILURE() << qm_client_error_text(iResult); });
    }
    return iResult == QM_CLIENT_OK;
  }

  // Once again after a failure: there is memory then.
  void SendForSure(uint64_t u64Cookie, size_t uLength) {
    if (!Try(u64Cookie, uLength) && !Try(u64Cookie, uLength)) {
      Aside([] { ADD_FAILURE() << "failed twice"; });
    }
  }

  void Flush() {
    int iResult = qm_client_flush(m_pClient, kPatienceMs);
    if (iResult == QM_CLIENT_E_MEMORY) {
      iResult = qm_client_flush(m_pClient, kPatienceMs);
    }
    if (iResult != QM_CLIENT_OK) {
      Aside([&] { ADD_FAILURE() << qm_client_error_text(iResult); });
    }
  }

  void Work(const std::function<bool()>& fnDone) {
    bool bDone = false;
    for (int i = 0; i < 6000 && !bDone; ++i) {
      qm_client_process(m_pClient, 10);
      Aside([&] { bDone = fnDone(); });
    }
    if (!bDone) {
      Aside([] { ADD_FAILURE() << "never came"; });
    }
  }

  const std::string m_strBytes = std::string(100000, 'm');
  std::map<uint64_t, std::vector<qm_client_outcome>> m_mapOutcomes;

 private:
  static void OnResult(void* pUser, uint64_t u64Cookie, qm_client_outcome outcome, uint32_t /*uStatus*/) {
    Aside([&] { static_cast<ClientMemoryTest*>(pUser)->m_mapOutcomes[u64Cookie].push_back(outcome); });
  }
};

constexpr uint64_t kRecords = 12;

void ExpectAllAccepted(const std::map<uint64_t, std::vector<qm_client_outcome>>& mapOutcomes) {
  EXPECT_EQ(mapOutcomes.size(), kRecords);
  for (const auto& [u64Cookie, vecOutcomes] : mapOutcomes) {
    EXPECT_EQ(vecOutcomes, std::vector<qm_client_outcome>{QM_CLIENT_ACCEPTED}) << u64Cookie;
  }
}

// Records before the connection, behind a full window, refused, and over a lost connection.
TEST_F(ClientMemoryTest, WhereverMemoryIsShortOnceEveryRecordIsAcceptedOnce) {
  bool bFailed = true;
  unsigned int uNth = 0;
  while (bFailed && !HasFailure()) {
    SCOPED_TRACE(++uNth);
    m_mapOutcomes.clear();
    std::atomic<bool> bRefuse{true};
    const auto fnHandler = [&](const Delivery& delivery) {
      // The first host refuses one, answers one, and is gone before it has answered the others.
      if (m_pRouter->Deliveries().size() <= 2) {
        delivery.Reply(bRefuse.exchange(false) ? static_cast<uint32_t>(kStatusCountLimit) : 0);
      }
      return 0U;
    };
    Open();
    {
      const CNthAllocationFault fault(uNth);
      // The longer ones need memory for the output each time that they are sent.
      SendForSure(0, 1);
      SendForSure(1, 10000);
      Aside([&] { Serve(fnHandler); });
      for (uint64_t i = 2; i < kRecords; ++i) {
        SendForSure(i, 5000 * (i + 1));
      }
      Work([&] { return DeliveryCount() >= 5; });
      Aside([&] {
        StopServer();
        Serve();
      });
      Flush();
      bFailed = fault.HasFailed();
    }
    EXPECT_EQ(qm_client_pending(m_pClient), 0U);
    qm_client_close(m_pClient, 0);
    m_pClient = nullptr;
    ExpectAllAccepted(m_mapOutcomes);
    StopServer();
  }
  EXPECT_GT(uNth, 20U);
}

TEST_F(ClientMemoryTest, WhateverMemoryThereIsClosingReportsEveryRecordOnce) {
  bool bFailed = true;
  unsigned int uNth = 0;
  while (bFailed && !HasFailure()) {
    SCOPED_TRACE(++uNth);
    m_mapOutcomes.clear();
    Open();
    for (uint64_t i = 0; i < kRecords; ++i) {
      SendForSure(i, 5000 * (i + 1));
    }
    // So that all the work is left to the closing.
    Serve();
    int iResult = QM_CLIENT_OK;
    {
      const CNthAllocationFault fault(uNth);
      iResult = qm_client_close(m_pClient, kPatienceMs);
      bFailed = fault.HasFailed();
    }
    m_pClient = nullptr;
    EXPECT_EQ(m_mapOutcomes.size(), kRecords);
    for (const auto& [u64Cookie, vecOutcomes] : m_mapOutcomes) {
      EXPECT_EQ(vecOutcomes.size(), 1U) << u64Cookie;
    }
    if (!bFailed) {
      EXPECT_EQ(iResult, QM_CLIENT_OK);
      ExpectAllAccepted(m_mapOutcomes);
    }
    StopServer();
  }
  EXPECT_GT(uNth, 5U);
}

TEST_F(ClientMemoryTest, WithoutARetryTimeALostConnectionEndsEverythingWhateverMemoryThereIs) {
  m_clientOptions.retry_ms = 0;
  bool bFailed = true;
  for (unsigned int uNth = 1; bFailed && !HasFailure(); ++uNth) {
    SCOPED_TRACE(uNth);
    m_mapOutcomes.clear();
    Serve([](const Delivery&) { return 0U; });
    Open();
    for (uint64_t i = 0; i < kRecords; ++i) {
      SendForSure(i, 1);
    }
    Work([&] { return DeliveryCount() == 4; });
    StopServer();
    // There is another host at once, to which nothing of this is sent.
    Serve([](const Delivery&) { return 0U; });
    {
      const CNthAllocationFault fault(uNth);
      Flush();
      bFailed = fault.HasFailed();
    }
    EXPECT_EQ(m_mapOutcomes.size(), kRecords);
    for (const auto& [u64Cookie, vecOutcomes] : m_mapOutcomes) {
      EXPECT_EQ(vecOutcomes, std::vector{u64Cookie < 4 ? QM_CLIENT_NO_ANSWER : QM_CLIENT_NOT_SENT}) << u64Cookie;
    }
    qm_client_close(m_pClient, 0);
    m_pClient = nullptr;
    StopServer();
  }
}

}  // namespace
