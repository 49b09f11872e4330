// Intake, dispatch, results and sweeps at the same time. Sanitizers see what goes wrong; the test itself sees that
// every record is accounted for.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "tests/unit/store/store_fixture.h"

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

// The same with files: single writes, batches, loads and deletions meet on the files of two senders.
class FileStressTest : public StoreTest {
 protected:
  static constexpr unsigned long long kFileRecordsEach = 250;

  // Results for records that are filed or are being filed: delivered ones go, the others are queued again.
  void Settle(const std::atomic<unsigned long long>* pFiled, const std::atomic<bool>& bRunning,
              std::vector<bool>& vecDelivered) {
    std::mt19937 random(1);
    while (bRunning) {
      const unsigned long long u64Producer = random() % kProducers;
      const unsigned long long u64Last = std::min<unsigned long long>(pFiled[u64Producer], kFileRecordsEach - 1);
      const unsigned long long u64DataId = 1 + (random() % (u64Last + 1)) * kProducers + u64Producer;
      if (random() % 4 != 0) {
        static_cast<void>(Data().ReAddDataAction(u64DataId));
      } else if (Data().DeleteDataAction(u64DataId) == 0) {
        vecDelivered[u64DataId] = true;
      }
    }
  }
};

TEST_F(FileStressTest, TheRowsAreThoseOfTheWrittenRecordsInMemory) {
  Open("dataflowflag = 1\n");
  std::atomic<unsigned long long> au64Filed[kProducers] = {};
  std::atomic<int> iProducing{kProducers};
  std::atomic<bool> bRunning{true};
  std::vector<bool> vecDelivered(kProducers * kFileRecordsEach + 1);
  std::vector<std::thread> vecThreads;

  for (int iProducer = 0; iProducer < kProducers; ++iProducer) {
    vecThreads.emplace_back([&, iProducer] {
      for (unsigned long long i = 0; i < kFileRecordsEach; ++i) {
        const unsigned long long u64DataId = 1 + i * kProducers + static_cast<unsigned long long>(iProducer);
        // Every other record is written at intake, the others by a save or a re-queue.
        EXPECT_EQ(
            0, Data().AddDataAction(static_cast<int>(i % 2), u64DataId, static_cast<int>(i % 4), 1, 1,
                                    i % 3 == 0 ? kOtherSender : kSenderText, "prod", "comb", "the text of a record"));
        ++au64Filed[iProducer];
      }
      --iProducing;
    });
  }
  vecThreads.emplace_back([&] { Settle(au64Filed, bRunning, vecDelivered); });
  vecThreads.emplace_back([&] {
    while (bRunning) {
      EXPECT_EQ(1, Data().SaveCacheToDb());
    }
  });
  vecThreads.emplace_back([&] {
    while (bRunning) {
      EXPECT_EQ(1, Data().LoadExecData());
    }
  });
  vecThreads.emplace_back([&] {
    while (bRunning) {
      const ExecDataHold hold = Data().GetExecData();
      if (hold != nullptr) {
        EXPECT_STREQ("the text of a record", hold->strData.c_str());
      }
    }
  });
  while (iProducing > 0) {
    CFakeClock::Advance(14400);
    Data().RepeatExecDataMap();
  }
  bRunning = false;
  for (std::thread& thread : vecThreads) {
    thread.join();
  }

  for (unsigned long long u64DataId = 1; u64DataId <= kProducers * kFileRecordsEach; ++u64DataId) {
    EXPECT_NE(vecDelivered[u64DataId], Data().IsDataIdExist(u64DataId)) << u64DataId;
  }
  EXPECT_EQ(Peer().MapSize(), Peer().Ids(1).size() + Peer().Ids(2).size());
  const auto expectRowsOfWritten = [this] {
    DataIds vecRows = Rows();
    const DataIds vecOther = Rows(kOtherSender);
    vecRows.insert(vecRows.end(), vecOther.begin(), vecOther.end());
    std::sort(vecRows.begin(), vecRows.end());
    EXPECT_EQ(Peer().Ids(2), vecRows);
  };
  expectRowsOfWritten();
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ(Peer().Ids(), Peer().Ids(2));
  expectRowsOfWritten();
  for (const LogLine& line : CLogCapture::Lines()) {
    EXPECT_EQ(2, line.iLevel) << line.strText;
  }
}

}  // namespace
