#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>

#include "failing_io.h"
#include "fake_router.h"
#include "host/link/server_link.h"
#include "link_test_support.h"
#include "log_capture.h"

namespace {

using Records = std::vector<std::shared_ptr<LinkRecord>>;

// Keeps what the driver says.
class CRecordingEvents final : public ILinkEvents {
 public:
  void OnOutcome(const std::shared_ptr<LinkRecord>& pRecord, uint32_t uResult) override {
    if (fnOnOutcome) {
      fnOnOutcome(pRecord->tags.u64DataId);
    }
    Change([&] { vecOutcomes.emplace_back(pRecord->tags.u64DataId, uResult); });
  }
  void OnGivenBack(Records vecRecords) override {
    Change([&] { vecGivenBack.insert(vecGivenBack.end(), vecRecords.begin(), vecRecords.end()); });
  }
  void OnUp() override {
    Change([&] { ++uUps; });
  }
  void OnDown(const std::string& strReason) override {
    Change([&] { vecReasons.push_back(strReason); });
  }
  // False when it does not come true within the hang guard. The predicate may look at all members.
  bool WaitFor(const std::function<bool()>& fnDone) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, kHangGuard, fnDone);
  }

  // Set before the driver starts; runs on its thread. What it delivers makes up the driver's next batch.
  std::function<void(uint64_t)> fnOnOutcome;
  std::vector<std::pair<uint64_t, uint32_t>> vecOutcomes;
  Records vecGivenBack;
  size_t uUps = 0;
  std::vector<std::string> vecReasons;

 private:
  void Change(const std::function<void()>& fnChange) {
    {
      const std::lock_guard lock(m_mutex);
      fnChange();
    }
    m_changed.notify_all();
  }
  std::mutex m_mutex;  // guards the public members
  std::condition_variable m_changed;
};

std::vector<std::string> LinesOf(const std::string& strPath) {
  std::vector<std::string> vecLines;
  std::istringstream stream(ReadWhole(strPath));
  for (std::string strLine; std::getline(stream, strLine);) {
    vecLines.push_back(strLine);
  }
  return vecLines;
}

// The data ids of a file's lines, each of which must be one JSON object.
std::vector<std::string> IdsOf(const std::string& strPath) {
  std::vector<std::string> vecIds;
  for (const auto& strLine : LinesOf(strPath)) {
    vecIds.push_back(nlohmann::json::parse(strLine)["dataid"]);
  }
  return vecIds;
}

using Ids = std::vector<std::string>;

class FileDriverTest : public ::testing::Test {
 protected:
  FileDriverTest() {
    g_failingIo.Reset();
    ClearLog();
    m_strPath = m_directory.Path("records.jsonl");
  }
  ~FileDriverTest() override {
    if (m_pDriver) {
      m_pDriver->Stop();
    }
    g_failingIo.Reset();
  }

  bool Start(bool bSync = true) {
    m_pDriver = CreateFileDriver({m_strPath, bSync});
    return m_pDriver->Start(&m_events, m_strError);
  }
  void StartUp(bool bSync = true) {
    ASSERT_TRUE(Start(bSync)) << m_strError;
    ASSERT_TRUE(WaitForUps(1));
  }
  bool WaitForUps(size_t uCount) {
    return m_events.WaitFor([&] { return m_events.uUps >= uCount; });
  }
  bool WaitForDowns(size_t uCount) {
    return m_events.WaitFor([&] { return m_events.vecReasons.size() >= uCount; });
  }
  bool WaitForOutcomes(size_t uCount) {
    return m_events.WaitFor([&] { return m_events.vecOutcomes.size() >= uCount; });
  }
  void Deliver(uint64_t u64DataId, const std::string& strMessage = "data") {
    m_pDriver->Deliver(MakeRecord(u64DataId, strMessage));
  }

  CTestDirectory m_directory;
  std::string m_strPath;
  std::string m_strError;
  CRecordingEvents m_events;
  std::unique_ptr<ILinkDriver> m_pDriver;
};

TEST_F(FileDriverTest, WritesRecordsInOrderAndAnswersThem) {
  StartUp();
  for (uint64_t i = 1; i <= 200; ++i) {
    Deliver(i, "message " + std::to_string(i));
  }
  ASSERT_TRUE(WaitForOutcomes(200));
  const auto vecLines = LinesOf(m_strPath);
  ASSERT_EQ(vecLines.size(), 200U);
  for (uint64_t i = 1; i <= 200; ++i) {
    EXPECT_EQ(m_events.vecOutcomes[i - 1], std::make_pair(i, 0U));
    EXPECT_EQ(nlohmann::json::parse(vecLines[i - 1])["message"], "message " + std::to_string(i));
  }
}

TEST_F(FileDriverTest, KeepsTheFileForItsOwnerAlone) {
  const mode_t before = umask(0);
  StartUp();
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(m_strPath.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(FileDriverTest, TakesAFileThatIsThereFromOthers) {
  for (const mode_t mode : {0644U, 0620U, 0602U}) {
    WriteWhole(m_strPath, "{\"dataid\":\"f\"}\n");
    ASSERT_EQ(chmod(m_strPath.c_str(), mode), 0);
    ASSERT_TRUE(Start()) << m_strError;
    m_pDriver->Stop();
    struct stat status {};
    ASSERT_EQ(stat(m_strPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(IdsOf(m_strPath), (Ids{"f"}));
  }
}

TEST_F(FileDriverTest, SyncsBeforeItAnswersOnlyWhenAsked) {
  StartUp();
  Deliver(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  EXPECT_EQ(g_failingIo.uSyncs, 1U);
  m_pDriver->Stop();
  StartUp(false);
  Deliver(2);
  ASSERT_TRUE(WaitForOutcomes(2));
  EXPECT_EQ(g_failingIo.uSyncs, 1U);
}

TEST_F(FileDriverTest, WritesWhatIsQueuedWhenItIsStopped) {
  StartUp();
  for (uint64_t i = 1; i <= 1000; ++i) {
    Deliver(i);
  }
  m_pDriver->Stop();
  EXPECT_EQ(m_events.vecOutcomes.size(), 1000U);
  EXPECT_EQ(LinesOf(m_strPath).size(), 1000U);
}

TEST_F(FileDriverTest, AppendsToWhatIsThere) {
  WriteWhole(m_strPath, "{\"dataid\":\"f\"}\n");
  StartUp();
  Deliver(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"f", "1"}));
  EXPECT_EQ(CapturedLog().size(), 0U);
}

TEST_F(FileDriverTest, EndsATornLineInsteadOfGluingARecordToIt) {
  WriteWhole(m_strPath, "{\"dataid\":\"f\"}\n{\"dataid\":\"to");
  StartUp();
  Deliver(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  const auto vecLines = LinesOf(m_strPath);
  ASSERT_EQ(vecLines.size(), 3U);
  EXPECT_EQ(vecLines[1], "{\"dataid\":\"to");
  EXPECT_EQ(nlohmann::json::parse(vecLines[2])["dataid"], "1");
  EXPECT_EQ(CountLogLines(3, "was not complete"), 1U);
}

TEST_F(FileDriverTest, RefusesAFifoWithoutBlocking) {
  ASSERT_EQ(mkfifo(m_strPath.c_str(), 0600), 0);
  EXPECT_FALSE(Start());
  EXPECT_NE(m_strError.find("not a regular file"), std::string::npos) << m_strError;
  const int iReader = open(m_strPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(iReader, 0);
  EXPECT_FALSE(Start());
  close(iReader);
}

TEST_F(FileDriverTest, RefusesWhatIsNoRegularFile) {
  const std::string strTarget = m_directory.Path("target");
  WriteWhole(strTarget, "");
  ASSERT_EQ(symlink(strTarget.c_str(), m_directory.Path("link").c_str()), 0);
  for (const std::string& strPath : {m_directory.Path("link"), m_directory.Path("."), std::string("/dev/full"),
                                     std::string(), std::string("a\0b", 3)}) {
    m_strPath = strPath;
    EXPECT_FALSE(Start()) << strPath;
    EXPECT_FALSE(m_strError.empty());
  }
  EXPECT_EQ(ReadWhole(strTarget), "");
  EXPECT_EQ(m_events.uUps, 0U);
}

TEST_F(FileDriverTest, IsDownUntilTheDirectoryExists) {
  m_strPath = m_directory.Path("later/records.jsonl");
  ASSERT_TRUE(Start()) << m_strError;
  ASSERT_TRUE(WaitForDowns(1));
  EXPECT_NE(m_events.vecReasons[0].find("No such file or directory"), std::string::npos) << m_events.vecReasons[0];
  ASSERT_TRUE(std::filesystem::create_directory(m_directory.Path("later")));
  // No nudge: the driver looks again by itself.
  ASSERT_TRUE(WaitForUps(1));
  Deliver(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"1"}));
  EXPECT_EQ(m_events.vecReasons.size(), 1U);
}

TEST_F(FileDriverTest, StopsAtOnceWhileDown) {
  m_strPath = m_directory.Path("never/records.jsonl");
  ASSERT_TRUE(Start());
  ASSERT_TRUE(WaitForDowns(1));
  m_pDriver->Stop();
  EXPECT_EQ(m_events.uUps, 0U);
}

TEST_F(FileDriverTest, FollowsARotationByRenameWhenReopened) {
  StartUp();
  Deliver(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  const std::string strOld = m_directory.Path("records.jsonl.1");
  std::filesystem::rename(m_strPath, strOld);
  Deliver(2);
  ASSERT_TRUE(WaitForOutcomes(2));
  EXPECT_EQ(IdsOf(strOld), (Ids{"1", "2"}));
  m_pDriver->Reopen();
  Deliver(3);
  ASSERT_TRUE(WaitForOutcomes(3));
  EXPECT_EQ(IdsOf(strOld), (Ids{"1", "2"}));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"3"}));
  EXPECT_EQ(m_events.uUps, 1U);
  EXPECT_TRUE(m_events.vecReasons.empty());
}

TEST_F(FileDriverTest, ReopensAtOnceWhenIdle) {
  StartUp();
  std::filesystem::rename(m_strPath, m_directory.Path("old"));
  m_pDriver->Reopen();
  const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
  while (!std::filesystem::exists(m_strPath) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_TRUE(std::filesystem::exists(m_strPath));
}

TEST_F(FileDriverTest, MakesADeletedFileAgain) {
  StartUp();
  Deliver(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  std::filesystem::remove(m_strPath);
  Deliver(2);
  ASSERT_TRUE(WaitForOutcomes(2));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"2"}));
}

TEST_F(FileDriverTest, GoesOnInAFileThatWasTruncated) {
  StartUp();
  Deliver(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  std::filesystem::resize_file(m_strPath, 0);
  Deliver(2);
  ASSERT_TRUE(WaitForOutcomes(2));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"2"}));
}

TEST_F(FileDriverTest, GivesRecordsBackWhenReopeningFails) {
  StartUp();
  std::filesystem::remove(m_strPath);
  ASSERT_EQ(mkfifo(m_strPath.c_str(), 0600), 0);
  Deliver(1);
  ASSERT_TRUE(m_events.WaitFor([&] { return m_events.vecGivenBack.size() == 1; }));
  EXPECT_EQ(m_events.vecReasons.size(), 1U);
  EXPECT_TRUE(m_events.vecOutcomes.empty());
  std::filesystem::remove(m_strPath);
  m_pDriver->Reopen();
  ASSERT_TRUE(WaitForUps(2));
}

// Four records queued as one batch, of which the disk takes one and a half.
class FullDiskTest : public FileDriverTest {
 protected:
  void FillUp(int iError) {
    m_events.fnOnOutcome = [this, iError](uint64_t u64DataId) {
      if (u64DataId != 0xff) {
        return;
      }
      m_iLine = static_cast<int64_t>(ReadWhole(m_strPath).size());
      g_failingIo.iWriteError = iError;
      g_failingIo.i64WritableBytes = m_iLine + m_iLine / 2;
      for (uint64_t i = 0xa1; i <= 0xa4; ++i) {
        Deliver(i);
      }
    };
    StartUp();
    Deliver(0xff);
    ASSERT_TRUE(m_events.WaitFor([&] { return m_events.vecOutcomes.size() + m_events.vecGivenBack.size() == 5; }));
  }
  int64_t m_iLine = 0;
};

TEST_F(FullDiskTest, AnswersWholeLinesAndGivesTheOthersBack) {
  FillUp(ENOSPC);
  EXPECT_EQ(m_events.vecOutcomes, (std::vector<std::pair<uint64_t, uint32_t>>{{0xff, 0}, {0xa1, 0}}));
  ASSERT_EQ(m_events.vecGivenBack.size(), 3U);
  for (uint64_t i = 0; i < 3; ++i) {
    EXPECT_EQ(m_events.vecGivenBack[i]->tags.u64DataId, 0xa2 + i);
  }
  ASSERT_EQ(m_events.vecReasons.size(), 1U);
  EXPECT_NE(m_events.vecReasons[0].find("No space left on device"), std::string::npos) << m_events.vecReasons[0];
  // The torn half of the second line is gone.
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"ff", "a1"}));
  EXPECT_EQ(static_cast<int64_t>(ReadWhole(m_strPath).size()), 2 * m_iLine);
}

TEST_F(FullDiskTest, StaysDownUntilThereIsRoom) {
  g_failingIo.iReserveError = ENOSPC;
  FillUp(ENOSPC);
  m_pDriver->Reopen();
  const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
  while (g_failingIo.uReserves < 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_GE(g_failingIo.uReserves, 2U);
  EXPECT_GE(g_failingIo.i64LastReserve, m_iLine);
  EXPECT_EQ(m_events.uUps, 1U);
  EXPECT_EQ(m_events.vecReasons.size(), 1U);
  g_failingIo.iReserveError = 0;
  g_failingIo.i64WritableBytes = -1;
  m_pDriver->Reopen();
  ASSERT_TRUE(WaitForUps(2));
  Deliver(0xb1);
  ASSERT_TRUE(WaitForOutcomes(3));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"ff", "a1", "b1"}));
}

TEST_F(FullDiskTest, ComesUpByItselfAfterAnInputOutputError) {
  FillUp(EIO);
  g_failingIo.i64WritableBytes = -1;
  ASSERT_TRUE(WaitForUps(2));
  for (const auto& pRecord : m_events.vecGivenBack) {
    m_pDriver->Deliver(pRecord);
  }
  ASSERT_TRUE(WaitForOutcomes(5));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"ff", "a1", "a2", "a3", "a4"}));
}

TEST_F(FileDriverTest, CountsNothingAsWrittenWhenTheSyncFails) {
  StartUp();
  Deliver(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  g_failingIo.iSyncError = EIO;
  Deliver(2);
  ASSERT_TRUE(m_events.WaitFor([&] { return m_events.vecGivenBack.size() == 1; }));
  EXPECT_EQ(m_events.vecOutcomes.size(), 1U);
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"1"}));
  g_failingIo.iSyncError = 0;
  m_pDriver->Reopen();
  ASSERT_TRUE(WaitForUps(2));
  m_pDriver->Deliver(m_events.vecGivenBack[0]);
  ASSERT_TRUE(WaitForOutcomes(2));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"1", "2"}));
}

// The real limit of the system, no stand-in: the driver's thread must see EFBIG and not be killed by a signal.
TEST_F(FileDriverTest, SurvivesAFileSizeLimit) {
  m_events.fnOnOutcome = [this](uint64_t u64DataId) {
    for (uint64_t i = 1; u64DataId == 0xff && i <= 10; ++i) {
      Deliver(i, std::string(300, 'x'));
    }
  };
  StartUp();
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small{2000, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  Deliver(0xff);
  const bool bSettled =
      m_events.WaitFor([&] { return m_events.vecOutcomes.size() + m_events.vecGivenBack.size() == 11; });
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  ASSERT_TRUE(bSettled);
  EXPECT_EQ(IdsOf(m_strPath).size(), m_events.vecOutcomes.size());
  EXPECT_GE(m_events.vecOutcomes.size(), 2U);
  EXPECT_GE(m_events.vecGivenBack.size(), 1U);
  EXPECT_NE(m_events.vecReasons.at(0).find("File too large"), std::string::npos) << m_events.vecReasons[0];
}

TEST_F(FileDriverTest, WritesRecordsLargerThanOneWrite) {
  StartUp();
  for (uint64_t i = 1; i <= 5; ++i) {
    Deliver(i, std::string(3U << 20, static_cast<char>('a' + i)));
  }
  ASSERT_TRUE(WaitForOutcomes(5));
  EXPECT_EQ(IdsOf(m_strPath), (Ids{"1", "2", "3", "4", "5"}));
}

TEST_F(FileDriverTest, GathersABatchInOneWriteAndOneSync) {
  StartUp();
  // Queued before the thread can look: the link hands over what it held from inside OnUp.
  m_pDriver->Stop();
  g_failingIo.Reset();
  class CBurst final : public ILinkEvents {
   public:
    explicit CBurst(CRecordingEvents& events) : m_inner(events) {}
    void OnOutcome(const std::shared_ptr<LinkRecord>& pRecord, uint32_t uResult) override {
      m_inner.OnOutcome(pRecord, uResult);
    }
    void OnGivenBack(Records vecRecords) override { m_inner.OnGivenBack(std::move(vecRecords)); }
    void OnUp() override {
      for (uint64_t i = 1; i <= 128; ++i) {
        m_pDriver->Deliver(MakeRecord(i, "data"));
      }
      m_inner.OnUp();
    }
    void OnDown(const std::string& strReason) override { m_inner.OnDown(strReason); }
    ILinkDriver* m_pDriver = nullptr;

   private:
    CRecordingEvents& m_inner;
  } burst(m_events);
  m_pDriver = CreateFileDriver({m_strPath, true});
  burst.m_pDriver = m_pDriver.get();
  ASSERT_TRUE(m_pDriver->Start(&burst, m_strError));
  ASSERT_TRUE(WaitForOutcomes(128));
  m_pDriver->Stop();
  EXPECT_EQ(g_failingIo.uWrites, 1U);
  EXPECT_EQ(g_failingIo.uSyncs, 1U);
}

TEST_F(FileDriverTest, DescribesItself) {
  EXPECT_EQ(CreateFileDriver({"/var/log/records.jsonl", true})->Describe(), "file /var/log/records.jsonl");
}

// The link and the driver together: records of an outage are held, and written in order once there is room.
TEST_F(FileDriverTest, LosesNothingOverAnOutageWithTheServerLink) {
  CFakeRouter router;
  CFakeContext& context = *router.m_pContext;
  {
    const auto pLink = CreateServerLink(router, CreateFileDriver({m_strPath, true}));
    ASSERT_TRUE(pLink->Start(m_strError)) << m_strError;
    const auto bReach = [&](const std::function<bool(const ServerLinkCounts&)>& fnDone) {
      const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
      while (!fnDone(pLink->GetCounts()) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
      }
      return fnDone(pLink->GetCounts());
    };
    ASSERT_TRUE(bReach([](const auto& counts) { return counts.bUp; }));
    g_failingIo.iReserveError = ENOSPC;
    g_failingIo.iWriteError = ENOSPC;
    g_failingIo.i64WritableBytes = 1000;
    for (uint64_t i = 1; i <= 100; ++i) {
      context.Arrive(MakeText(i, "data"));
    }
    ASSERT_TRUE(bReach([](const auto& counts) { return !counts.bUp && counts.u64Retried == kAnsweredPerOutage; }));
    g_failingIo.i64WritableBytes = -1;
    g_failingIo.iReserveError = 0;  // last: from here on the driver may come up by itself
    pLink->Reopen();
    ASSERT_TRUE(bReach([](const auto& counts) { return counts.bUp && counts.u64Held == 0; }));
    EXPECT_EQ(pLink->GetCounts().u64Delivered, 80U);
    EXPECT_EQ(pLink->GetCounts().u64Retried, 20U);
    pLink->Stop();
  }
  uint64_t u64Last = 0;
  size_t uLines = 0;
  for (const auto& strId : IdsOf(m_strPath)) {
    const uint64_t u64Id = std::stoull(strId, nullptr, 16);
    EXPECT_GT(u64Id, u64Last);
    u64Last = u64Id;
    ++uLines;
  }
  EXPECT_EQ(uLines, 80U);
}

}  // namespace
