// Intake, dispatch, results and sweeps at the same time. Sanitizers see what goes wrong; the test itself sees that
// every record is accounted for.
#include <atomic>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/manager_fixture.h"

namespace {

constexpr int kProducers = 2;
constexpr int kResultThreads = 2;
constexpr unsigned long long kRecordsEach = 1500;

class StoreStressTest : public ComponentTest {
 protected:
  StoreStressTest() { EXPECT_TRUE(m_data.InitCacheData()); }

  CLogCacheData m_data;
  CLogCacheDataPeer m_peer{m_data};
};

TEST_F(StoreStressTest, NoRecordIsFreedWhileAnyoneCanReachIt) {
  std::atomic<int> iProducing{kProducers};
  std::atomic<bool> bTaking{true};
  std::atomic<unsigned long long> u64Deleted{0};
  std::vector<std::thread> vecThreads;

  for (int iProducer = 0; iProducer < kProducers; ++iProducer) {
    vecThreads.emplace_back([&, iProducer] {
      for (unsigned long long i = 0; i < kRecordsEach; ++i) {
        const unsigned long long u64DataId = 1 + i * kProducers + static_cast<unsigned long long>(iProducer);
        EXPECT_EQ(0, m_data.AddDataAction(0, u64DataId, static_cast<int>(u64DataId % 4), 1, 1, kSenderText, "prod",
                                          "comb", "the text of a record"));
      }
      --iProducing;
    });
  }

  // Results for any record at all: sent, queued, being filed, settled, unknown.
  for (int iThread = 0; iThread < kResultThreads; ++iThread) {
    vecThreads.emplace_back([&, iThread] {
      std::mt19937 random(static_cast<unsigned int>(iThread) + 1);
      std::uniform_int_distribution<unsigned long long> anyId(1, kProducers * kRecordsEach);
      while (iProducing > 0) {
        const unsigned long long u64DataId = anyId(random);
        if (random() % 3 == 0) {
          u64Deleted += m_data.DeleteDataAction(u64DataId) == 0 ? 1 : 0;
        } else {
          static_cast<void>(m_data.ReAddDataAction(u64DataId));
        }
      }
    });
  }

  vecThreads.emplace_back([&] {
    while (bTaking) {
      const ExecDataHold hold = m_data.GetExecData();
      if (hold == nullptr) {
        continue;
      }
      EXPECT_STREQ("the text of a record", hold->strData.c_str());
      if (hold->ReSendCount > 2) {
        u64Deleted += m_data.DeleteDataAction(hold->u64DataId) == 0 ? 1 : 0;
      }
      EXPECT_STREQ("prod", hold->strProduct.c_str());
    }
  });

  while (iProducing > 0) {
    CFakeClock::Advance(14400);
    m_data.RepeatExecDataMap();
    m_data.DelFirLineFromExecData();
    EXPECT_FALSE(m_data.GetDataStat().IsEmpty());
  }
  bTaking = false;
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  EXPECT_EQ(kProducers * kRecordsEach, m_peer.MapSize() + u64Deleted);
}

}  // namespace
