// A record that several threads want to write, to queue again or to settle at once.
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "tests/unit/store/store_fixture.h"

namespace {

constexpr auto kHangGuard = std::chrono::seconds(60);

// Stops the first thread that comes by until it is opened. Opens by itself when it goes.
class CGate {
 public:
  CGate() = default;
  ~CGate() { Open(); }
  CGate(const CGate&) = delete;
  CGate& operator=(const CGate&) = delete;

  void Pass() {
    if (!m_bUsed.exchange(true)) {
      m_reached.set_value();
      m_opened.wait();
    }
  }
  [[nodiscard]] bool WaitUntilReached() {
    return m_reached.get_future().wait_for(kHangGuard) == std::future_status::ready;
  }
  void Open() {
    if (!m_bOpen.exchange(true)) {
      m_open.set_value();
    }
  }

 private:
  std::atomic<bool> m_bUsed{false};
  std::atomic<bool> m_bOpen{false};
  std::promise<void> m_reached;
  std::promise<void> m_open;
  std::shared_future<void> m_opened{m_open.get_future().share()};
};

class WriteRaceTest : public StoreTest {
 protected:
  ~WriteRaceTest() override {
    m_gate.Open();
    if (m_thread.joinable()) {
      m_thread.join();
    }
  }

  // Starts an intake and returns when its record is in memory and its write under way: inside the space check, with
  // neither the store's nor the file's lock.
  void BeginIntake(unsigned long long u64DataId) {
    CStorageFaults::SetStatvfs([this](const char*, struct statvfs* pStat) {
      m_gate.Pass();
      *pStat = {};
      pStat->f_frsize = 1;
      pStat->f_bfree = uint64_t{1} << 40;
      return 0;
    });
    m_thread = std::thread([this, u64DataId] { EXPECT_EQ(0, Add(u64DataId)); });
    ASSERT_TRUE(m_gate.WaitUntilReached());
  }
  // Starts a save and returns when it is at its first insert, with the store's lock.
  void BeginSave() {
    CStorageFaults::SetExecHook([this](std::string_view svSql) {
      if (svSql.starts_with("insert")) {
        m_gate.Pass();
      }
      return SQLITE_OK;
    });
    m_thread = std::thread([this] { EXPECT_EQ(1, Data().SaveCacheToDb()); });
    ASSERT_TRUE(m_gate.WaitUntilReached());
  }
  void Finish() {
    m_gate.Open();
    m_thread.join();
  }

  CGate m_gate;
  std::thread m_thread;
};

TEST_F(WriteRaceTest, ASavePassesOverARecordThatItsIntakeIsWriting) {
  Open();
  AddPending(2, 3);
  BeginIntake(1);
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((DataIds{2, 3}), Rows());
  EXPECT_EQ((DataIds{2, 3}), Peer().Ids(2));
  EXPECT_EQ(1, Status(1));
  Finish();
  EXPECT_EQ((DataIds{1, 2, 3}), Rows());
  EXPECT_EQ((DataIds{1, 2, 3}), Peer().Ids(2));
  EXPECT_EQ(2u, Inserts());
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(WriteRaceTest, ARequeuePassesOverARecordThatItsIntakeIsWriting) {
  Open();
  BeginIntake(1);
  EXPECT_EQ(0, Data().ReAddDataAction(1));
  EXPECT_EQ(1, Status(1));
  EXPECT_EQ(0u, Inserts());
  Finish();
  EXPECT_EQ(2, Status(1));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_EQ(1u, Inserts());
  EXPECT_EQ(1u, Peer().QueueCount(1));
}

TEST_F(WriteRaceTest, ARecordSettledWhileItsIntakeIsWritingLeavesNoRow) {
  Open();
  BeginIntake(1);
  EXPECT_EQ(0, Data().DeleteDataAction(1));
  EXPECT_EQ(0u, Inserts());
  Finish();
  EXPECT_EQ(1u, Inserts());
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_TRUE(Rows().empty());
  EXPECT_EQ(0u, Take());
}

TEST_F(WriteRaceTest, ARecordSettledWhileItsIntakeIsWritingIsNotBroughtBackByALoad) {
  Open();
  EXPECT_EQ(0, Add(5));
  BeginIntake(1);
  Peer().WithLock([this] {
    EXPECT_EQ(0, Data().DeleteDataAction(1));
    m_gate.Open();
    // The row is there, and the intake waits for the lock to see what became of its record.
    const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
    while (Rows().size() != 2 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    EXPECT_EQ((DataIds{1, 5}), Rows());
    EXPECT_EQ(1, Data().LoadExecData());
  });
  Finish();
  EXPECT_EQ((DataIds{5}), Peer().Ids());
  EXPECT_EQ((DataIds{5}), Rows());
  EXPECT_EQ(5u, Take());
  EXPECT_EQ(0u, Take());
}

TEST_F(WriteRaceTest, ARecordSettledWhileItsIntakeFailsToWriteIsGone) {
  Open("diskfreesize = 1000\n");
  m_thread = std::thread([this] {
    CStorageFaults::SetStatvfs([this](const char*, struct statvfs* pStat) {
      m_gate.Pass();
      *pStat = {};
      return 0;
    });
    EXPECT_EQ(0, Add(1));
  });
  ASSERT_TRUE(m_gate.WaitUntilReached());
  EXPECT_EQ(0, Data().DeleteDataAction(1));
  Finish();
  EXPECT_EQ(0u, Peer().MapSize());
  EXPECT_FALSE(Exists(CacheFile()));
  EXPECT_EQ(0u, Take());
}

TEST_F(WriteRaceTest, AnIntakeThatMeetsASaveDoesNotWriteTwice) {
  Open();
  AddPending(1, 2);
  _LogExecData* pRecord = Peer().Find(1);
  BeginSave();
  std::promise<void> begun;
  std::thread intake([&] {
    begun.set_value();
    EXPECT_EQ(0, Data().AddCacheData(pRecord));
    EXPECT_EQ(2, pRecord->iDataSaveStatus);
  });
  begun.get_future().wait();
  Finish();
  intake.join();
  EXPECT_EQ(1u, Inserts());
  EXPECT_EQ((DataIds{1, 2}), Rows());
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(WriteRaceTest, AnIntakeThatMeetsASaveThatFailsWritesItself) {
  Open();
  EXPECT_EQ(0, Add(5));
  AddPending(1, 2);
  _LogExecData* pRecord = Peer().Find(1);
  // The batch of two fails, and nothing else does.
  std::atomic<int> iFailed{0};
  CStorageFaults::SetExecHook([&](std::string_view svSql) {
    if (svSql.starts_with("insert") && svSql.find("), (") != std::string_view::npos) {
      m_gate.Pass();
      ++iFailed;
      return SQLITE_IOERR;
    }
    int iBoth = 2;
    return svSql.starts_with("PRAGMA") && iFailed.compare_exchange_strong(iBoth, 0) ? SQLITE_CANTOPEN : SQLITE_OK;
  });
  m_thread = std::thread([this] { EXPECT_EQ(1, Data().SaveCacheToDb()); });
  ASSERT_TRUE(m_gate.WaitUntilReached());
  std::promise<void> begun;
  std::thread intake([&] {
    begun.set_value();
    EXPECT_EQ(0, Data().AddCacheData(pRecord));
  });
  begun.get_future().wait();
  Finish();
  intake.join();
  CStorageFaults::SetExecHook(nullptr);
  EXPECT_EQ((DataIds{1, 5}), Rows());
  EXPECT_EQ((DataIds{1, 5}), Peer().Ids(2));
  EXPECT_EQ((DataIds{2}), Peer().Ids(1));
}

TEST_F(WriteRaceTest, ARecordSettledDuringASaveWaitsForItAndLeavesNoRow) {
  Open();
  AddPending(1, 2);
  BeginSave();
  std::promise<void> begun;
  std::thread settling([&] {
    begun.set_value();
    EXPECT_EQ(0, Data().DeleteDataAction(1));
  });
  begun.get_future().wait();
  Finish();
  settling.join();
  EXPECT_EQ((DataIds{2}), Rows());
  EXPECT_EQ((DataIds{2}), Peer().Ids());
}

TEST_F(WriteRaceTest, ALoadWaitsForTheSendersWriteAndFindsItsRow) {
  Open();
  EXPECT_EQ(0, Add(1));
  CStorageFaults::SetExecHook([this](std::string_view svSql) {
    if (svSql.starts_with("insert")) {
      m_gate.Pass();
    }
    return SQLITE_OK;
  });
  m_thread = std::thread([this] { EXPECT_EQ(0, Add(2)); });
  ASSERT_TRUE(m_gate.WaitUntilReached());
  std::promise<void> begun;
  std::thread loading([&] {
    begun.set_value();
    EXPECT_EQ(1, Data().LoadExecData());
  });
  begun.get_future().wait();
  Finish();
  loading.join();
  EXPECT_EQ((DataIds{1, 2}), Peer().Ids(2));
  EXPECT_EQ((DataIds{1, 2}), Rows());
  EXPECT_EQ(2u, Peer().QueueCount(1));
}

}  // namespace
