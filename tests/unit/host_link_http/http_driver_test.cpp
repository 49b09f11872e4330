// The driver against a server on loopback: what it tells the link, and in which order.
#include "host/link/http/http_driver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <utility>

#include "host/link/server_link.h"
#include "scripted_server.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/allocation_pause.h"
#include "tests/unit/host_link/fake_router.h"
#include "tests/unit/host_link/link_test_support.h"
#include "tests/unit/host_link/log_capture.h"

namespace {

using Ids = std::vector<uint64_t>;

// Keeps what the driver says, in words and in order: "up", "outcome 7 0", "down REASON", "back 7".
class CJournal final : public ILinkEvents {
 public:
  void OnOutcome(const std::shared_ptr<LinkRecord>& pRecord, uint32_t uResult) override {
    const CAllocationPause pause;
    char acText[64];
    snprintf(acText, sizeof(acText), "outcome %llu %x", static_cast<unsigned long long>(pRecord->tags.u64DataId),
             uResult);
    Note(acText);
  }
  void OnGivenBack(std::vector<std::shared_ptr<LinkRecord>> vecRecords) override {
    const CAllocationPause pause;
    for (const auto& pRecord : vecRecords) {
      Note("back " + std::to_string(pRecord->tags.u64DataId));
    }
  }
  void OnUp() override {
    const CAllocationPause pause;
    Note("up");
    if (fnOnUp) {
      fnOnUp();
    }
  }
  void OnDown(const std::string& strReason) override {
    const CAllocationPause pause;
    Note("down " + strReason);
    if (fnOnDown) {
      fnOnDown();
    }
  }

  // Set before the driver starts; they run on its thread.
  std::function<void()> fnOnUp;
  std::function<void()> fnOnDown;

  // False when the lines do not come within the hang guard.
  bool WaitForCount(const std::string& strBeginning, size_t uCount) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, kHangGuard, [&] { return CountLocked(strBeginning) >= uCount; });
  }
  size_t Count(const std::string& strBeginning) {
    const std::lock_guard lock(m_mutex);
    return CountLocked(strBeginning);
  }
  bool WaitForDelivered(size_t uCount) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, kHangGuard, [&] { return CountDeliveredLocked() >= uCount; });
  }
  size_t CountDelivered() {
    const std::lock_guard lock(m_mutex);
    return CountDeliveredLocked();
  }
  std::vector<std::string> Lines() {
    const std::lock_guard lock(m_mutex);
    return m_vecLines;
  }

 private:
  size_t CountDeliveredLocked() const {
    return static_cast<size_t>(std::count_if(m_vecLines.begin(), m_vecLines.end(), [](const std::string& strLine) {
      return strLine.starts_with("outcome ") && strLine.ends_with(" 0");
    }));
  }
  size_t CountLocked(const std::string& strBeginning) const {
    return static_cast<size_t>(std::count_if(m_vecLines.begin(), m_vecLines.end(), [&](const std::string& strLine) {
      return strLine.starts_with(strBeginning);
    }));
  }
  void Note(const std::string& strLine) {
    {
      const std::lock_guard lock(m_mutex);
      m_vecLines.push_back(strLine);
    }
    m_changed.notify_all();
  }
  std::mutex m_mutex;  // guards the lines
  std::condition_variable m_changed;
  std::vector<std::string> m_vecLines;
};

bool Holds(const ServedRequest& request, uint64_t u64DataId) {
  return std::find(request.vecIds.begin(), request.vecIds.end(), u64DataId) != request.vecIds.end();
}

// Holds up whoever comes to it until it is released, at the latest by its end.
class CGate {
 public:
  ~CGate() { Release(); }
  void Wait() const { m_released.wait(); }
  void Release() {
    if (!std::exchange(m_bReleased, true)) {
      m_release.set_value();
    }
  }

 private:
  std::promise<void> m_release;
  const std::shared_future<void> m_released = m_release.get_future().share();
  bool m_bReleased = false;
};

class HttpDriverTest : public ::testing::Test {
 protected:
  HttpDriverTest() {
    ClearLog();
    m_options.strAgentId = "0123abcd-0000-4000-8000-00000000000a";
    m_options.uLongestBackOffMs = 50;
    m_options.u64Seed = 1;
  }
  ~HttpDriverTest() override {
    if (m_pDriver) {
      m_pDriver->Stop();
    }
    m_held.Release();
    m_heldOthers.Release();
  }

  void Serve(CScriptedServer::AnswerFunction fnAnswer) {
    m_pServer = std::make_unique<CScriptedServer>(std::move(fnAnswer));
    m_options.strUrl = m_pServer->Url();
  }
  void Start() {
    m_pDriver = CreateHttpDriver(m_options);
    std::string strError;
    ASSERT_TRUE(m_pDriver->Start(&m_journal, strError)) << strError;
  }
  void StartUp() {
    Start();
    ASSERT_TRUE(m_journal.WaitForCount("up", 1));
  }
  void Deliver(uint64_t u64First, uint64_t u64Last) {
    for (uint64_t i = u64First; i <= u64Last; ++i) {
      m_pDriver->Deliver(MakeRecord(i, "data"));
    }
  }
  // Good records, one after the other, until so many others have been rejected, and no more.
  void DeliverUntilRejected(uint64_t u64Next, size_t uRejected) {
    const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
    size_t uDelivered = m_journal.CountDelivered();
    while (m_journal.Count("outcome") - m_journal.CountDelivered() < uRejected &&
           std::chrono::steady_clock::now() < deadline) {
      Deliver(u64Next, u64Next);
      ++u64Next;
      ASSERT_TRUE(m_journal.WaitForDelivered(++uDelivered));
    }
    EXPECT_EQ(m_journal.Count("outcome") - m_journal.CountDelivered(), uRejected);
  }
  // Starts with a server that has got record 1 alone, and answers it only when m_held is released.
  void HoldFirstRecord() {
    Serve([this](const ServedRequest& request) {
      if (request.vecIds == Ids{1}) {
        m_held.Wait();
      }
      return StatusAnswer(200);
    });
    StartUp();
    Deliver(1, 1);
    ASSERT_TRUE(WaitForRequest([](const ServedRequest& request) { return request.vecIds == Ids{1}; }));
  }
  bool WaitForRequest(const std::function<bool(const ServedRequest&)>& fnIsIt) {
    const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
    while (std::chrono::steady_clock::now() < deadline) {
      const auto vecRequests = m_pServer->Requests();
      if (std::any_of(vecRequests.begin(), vecRequests.end(), fnIsIt)) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

  HttpDriverOptions m_options;
  // What the server is to do. It may still be asked when the test's body has ended.
  std::atomic<int> m_iStatus{200};
  std::atomic<bool> m_bWell{true};
  CJournal m_journal;
  CGate m_held;
  CGate m_heldOthers;
  std::unique_ptr<CScriptedServer> m_pServer;
  std::unique_ptr<ILinkDriver> m_pDriver;
};

TEST_F(HttpDriverTest, AsksWithAnEmptyBatchBeforeItIsUp) {
  Serve([](const ServedRequest&) { return StatusAnswer(204); });
  StartUp();
  ASSERT_EQ(m_pServer->Requests().size(), 1U);
  EXPECT_EQ(m_pServer->Requests()[0].vecIds, Ids{});
  EXPECT_EQ(m_pServer->Requests()[0].strHeader.find("Idempotency-Key"), std::string::npos);
  EXPECT_EQ(m_journal.Lines(), std::vector<std::string>{"up"});
  EXPECT_EQ(m_pDriver->Describe(), "http " + m_options.strUrl);
}

TEST_F(HttpDriverTest, ARecordGoesAtOnceAndWhatComesMeanwhileGoesTogether) {
  m_options.uRequests = 1;
  HoldFirstRecord();
  Deliver(2, 40);
  m_held.Release();
  ASSERT_TRUE(m_journal.WaitForCount("outcome", 40));
  const auto vecRequests = m_pServer->Requests();
  ASSERT_EQ(vecRequests.size(), 3U);
  EXPECT_EQ(vecRequests[2].vecIds.size(), 39U);
  EXPECT_EQ(m_journal.Lines()[1], "outcome 1 0");
}

TEST_F(HttpDriverTest, AFullBatchGoesBesideARequestThatIsUnderWay) {
  HoldFirstRecord();
  Deliver(2, 65);
  // Answered while the first one still waits: no window of 128 stands still.
  ASSERT_TRUE(m_journal.WaitForCount("outcome", 64));
  EXPECT_EQ(m_journal.Count("outcome 1 "), 0U);
  m_held.Release();
  ASSERT_TRUE(m_journal.WaitForCount("outcome 1 0", 1));
}

TEST_F(HttpDriverTest, ABatchThatDoesNotBecomeFullGoesBesideARequestAllTheSame) {
  HoldFirstRecord();
  Deliver(2, 4);
  ASSERT_TRUE(m_journal.WaitForCount("outcome", 3));
  EXPECT_EQ(m_journal.Count("outcome 1 "), 0U);
}

TEST_F(HttpDriverTest, ABatchThatIsSentAgainAsItWasHasTheKeyItHad) {
  m_iStatus = 503;
  Serve([this](const ServedRequest& request) { return StatusAnswer(request.vecIds.empty() ? 200 : m_iStatus.load()); });
  StartUp();
  const std::shared_ptr<LinkRecord> pRecord = MakeRecord(1, "data");
  m_pDriver->Deliver(pRecord);
  ASSERT_TRUE(m_journal.WaitForCount("up", 2));
  m_iStatus = 200;
  m_pDriver->Deliver(pRecord);
  ASSERT_TRUE(m_journal.WaitForCount("outcome 1 0", 1));
  std::set<std::string> setKeys;
  for (const ServedRequest& request : m_pServer->Requests()) {
    const size_t uKey = request.strHeader.find("Idempotency-Key: ");
    if (!request.vecIds.empty()) {
      ASSERT_NE(uKey, std::string::npos);
      setKeys.insert(request.strHeader.substr(uKey, request.strHeader.find("\r", uKey) - uKey));
    }
  }
  EXPECT_EQ(setKeys.size(), 1U);
  EXPECT_EQ(m_pServer->Requests().size(), 4U);
}

TEST_F(HttpDriverTest, TellsTheOutageOnceAndBeforeItGivesBack) {
  Serve([this](const ServedRequest&) { return StatusAnswer(m_iStatus); });
  StartUp();
  m_iStatus = 503;
  Deliver(1, 1);
  ASSERT_TRUE(m_journal.WaitForCount("back", 1));
  // Some attempts that fail.
  const size_t uRequests = m_pServer->Requests().size();
  ASSERT_TRUE(WaitForRequest([&](const ServedRequest&) { return m_pServer->Requests().size() >= uRequests + 3; }));
  m_iStatus = 200;
  ASSERT_TRUE(m_journal.WaitForCount("up", 2));
  EXPECT_EQ(m_journal.Lines(), (std::vector<std::string>{"up", "down HTTP status 503", "back 1", "up"}));
}

TEST_F(HttpDriverTest, AnOutageGivesBackWhatIsUnderWayAndWhatWaits) {
  Serve([this](const ServedRequest& request) {
    if (request.vecIds.empty()) {
      return StatusAnswer(200);
    }
    (request.vecIds == Ids{1} ? m_held : m_heldOthers).Wait();
    return StatusAnswer(503);
  });
  StartUp();
  Deliver(1, 1);
  ASSERT_TRUE(WaitForRequest([](const ServedRequest& request) { return request.vecIds == Ids{1}; }));
  Deliver(2, 65);
  ASSERT_TRUE(WaitForRequest([](const ServedRequest& request) { return Holds(request, 2); }));
  Deliver(66, 70);
  m_held.Release();
  ASSERT_TRUE(m_journal.WaitForCount("back", 70));
  m_heldOthers.Release();
  ASSERT_TRUE(m_journal.WaitForCount("up", 2));
  std::set<std::string> setBack;
  for (const std::string& strLine : m_journal.Lines()) {
    if (strLine.starts_with("back ")) {
      EXPECT_TRUE(setBack.insert(strLine).second) << strLine;
    }
  }
  EXPECT_EQ(setBack.size(), 70U);
  EXPECT_EQ(m_journal.Count("outcome"), 0U);
}

TEST_F(HttpDriverTest, OnlyTheRecordAtFaultIsRejected) {
  Serve([](const ServedRequest& request) { return StatusAnswer(Holds(request, 20) ? 422 : 200); });
  StartUp();
  Deliver(1, 64);
  ASSERT_TRUE(m_journal.WaitForCount("outcome", 63));
  DeliverUntilRejected(65, 1);
  EXPECT_EQ(m_journal.Count("outcome 20 a0020002"), 1U);
  EXPECT_EQ(m_journal.Count("down"), 0U);
  EXPECT_EQ(CountLogLines(3, "http link: the server refused record 14 for good: HTTP status 422"), 1U);
}

// It was refused twice, with something accepted in between that was sent after the first time.
TEST_F(HttpDriverTest, ARecordIsRejectedOnlyAfterRecordsThatWereSentLaterAreAccepted) {
  Serve([](const ServedRequest& request) { return StatusAnswer(Holds(request, 2) ? 422 : 200); });
  StartUp();
  Deliver(1, 1);
  ASSERT_TRUE(m_journal.WaitForCount("outcome 1 0", 1));
  Deliver(2, 2);
  ASSERT_TRUE(WaitForRequest([](const ServedRequest& request) { return request.vecIds == Ids{2}; }));
  Deliver(3, 3);
  ASSERT_TRUE(m_journal.WaitForCount("outcome 2 a0020002", 1));
  std::vector<Ids> vecSent;
  for (const ServedRequest& request : m_pServer->Requests()) {
    vecSent.push_back(request.vecIds);
  }
  EXPECT_EQ(vecSent, (std::vector<Ids>{{}, {1}, {2}, {3}, {2}}));
  EXPECT_EQ(m_journal.Count("down"), 0U);
}

TEST_F(HttpDriverTest, ManyRecordsAtFaultAreRejectedAndNoOther) {
  Serve([](const ServedRequest& request) {
    return StatusAnswer(std::any_of(request.vecIds.begin(), request.vecIds.end(),
                                    [](uint64_t u64Id) { return u64Id <= 20 || (u64Id <= 203 && u64Id % 7 == 0); })
                            ? 400
                            : 200);
  });
  StartUp();
  Deliver(1, 203);
  ASSERT_TRUE(m_journal.WaitForDelivered(203U - 20U - 27U));
  DeliverUntilRejected(1001, 20U + 27U);
  EXPECT_EQ(m_journal.Count("outcome 203 a0020002"), 1U);
  EXPECT_EQ(m_journal.Count("down"), 0U);
}

// What the server accepted before, and empty batches that it accepts still, say nothing about a record.
TEST_F(HttpDriverTest, AServerThatRefusesEveryRecordIsDownAndRejectsNone) {
  m_bWell = false;
  Serve([this](const ServedRequest& request) {
    return StatusAnswer(m_bWell || request.vecIds.empty() || request.vecIds.back() <= 10 ? 200 : 413);
  });
  m_options.uRequests = 1;
  // On the driver's thread: all are there before it sends the first.
  m_journal.fnOnUp = [this, uTimes = 0]() mutable {
    ++uTimes;
    m_bWell = uTimes == 3;
    Deliver(uTimes == 1 ? 1 : 11, 138);
  };
  Start();
  ASSERT_TRUE(m_journal.WaitForCount("outcome", 138));
  EXPECT_EQ(m_journal.CountDelivered(), 138U);
  EXPECT_EQ(m_journal.Count("back"), 256U);
  EXPECT_EQ(m_journal.Count("down the server refuses records and has accepted none since: HTTP status 413"), 2U);
  // The second time it has asked with a few records, and one at a time.
  const std::vector<ServedRequest> vecRequests = m_pServer->Requests();
  size_t uEmpty = 0;
  size_t uSecond = 0;
  for (const ServedRequest& request : vecRequests) {
    uEmpty += request.vecIds.empty() ? 1 : 0;
    if (uEmpty == 2 && !request.vecIds.empty()) {
      ++uSecond;
      EXPECT_EQ(request.vecIds.size(), 1U);
    }
  }
  EXPECT_EQ(uEmpty, 3U);
  EXPECT_EQ(uSecond, 4U);
}

// A sender that waits for the outcome of each record would wait for ever.
TEST_F(HttpDriverTest, ARefusedRecordThatNothingFollowsIsGivenBack) {
  m_options.uTimeoutMs = 3000;
  Serve([](const ServedRequest& request) { return StatusAnswer(Holds(request, 1) ? 400 : 200); });
  StartUp();
  Deliver(1, 1);
  ASSERT_TRUE(m_journal.WaitForCount("back 1", 1));
  EXPECT_EQ(m_journal.Count("down the server refuses records and has accepted none since: HTTP status 400"), 1U);
  ASSERT_TRUE(m_journal.WaitForCount("up", 2));
  // Whichever goes first: the good one is delivered.
  Deliver(1, 2);
  ASSERT_TRUE(m_journal.WaitForCount("outcome 2 0", 1));
}

TEST_F(HttpDriverTest, AServerThatRefusesEverythingIsDown) {
  m_options.uTimeoutMs = 100;
  Serve([this](const ServedRequest&) { return StatusAnswer(m_bWell ? 200 : 400); });
  StartUp();
  m_bWell = false;
  Deliver(1, 1);
  ASSERT_TRUE(m_journal.WaitForCount("back 1", 1));
  EXPECT_EQ(m_journal.Count("outcome"), 0U);
  m_bWell = true;
  ASSERT_TRUE(m_journal.WaitForCount("up", 2));
}

TEST_F(HttpDriverTest, ATimeOutWhileNothingIsAnsweredIsAnOutage) {
  m_options.uTimeoutMs = 3000;
  Serve([this](const ServedRequest& request) {
    if (!request.vecIds.empty()) {
      m_held.Wait();
    }
    return StatusAnswer(200);
  });
  m_journal.fnOnUp = [this, bFirst = true]() mutable {
    if (std::exchange(bFirst, false)) {
      Deliver(1, 128);
    }
  };
  Start();
  ASSERT_TRUE(m_journal.WaitForCount("back", 128));
  EXPECT_EQ(m_journal.Count("outcome"), 0U);
  EXPECT_EQ(m_journal.Count("down no answer in time"), 1U);
  m_held.Release();
  ASSERT_TRUE(m_journal.WaitForCount("up", 2));
}

TEST_F(HttpDriverTest, ATimeOutWhileOthersAreAcceptedIsTheOutcomeOfItsRecords) {
  m_options.uTimeoutMs = 8000;
  HoldFirstRecord();
  Deliver(2, 2);
  ASSERT_TRUE(m_journal.WaitForCount("outcome 1 e0010019", 1));
  EXPECT_EQ(m_journal.Count("outcome 2 0"), 1U);
  EXPECT_EQ(m_journal.Count("down"), 0U);
  EXPECT_EQ(CountLogLines(3, "http link: no answer in time, 1 records are to be sent again"), 1U);
  // Asked in between, so that a server that has gone silent since is not held to be well.
  EXPECT_EQ(m_pServer->Requests().back().vecIds, Ids{});
}

TEST_F(HttpDriverTest, ATimeOutOfAServerThatHasGoneSilentSinceIsAnOutage) {
  m_options.uTimeoutMs = 8000;
  Serve([this](const ServedRequest& request) {
    if (!m_bWell || Holds(request, 1)) {
      m_held.Wait();
    }
    return StatusAnswer(200);
  });
  StartUp();
  Deliver(1, 1);
  ASSERT_TRUE(WaitForRequest([](const ServedRequest& request) { return Holds(request, 1); }));
  Deliver(2, 2);
  ASSERT_TRUE(m_journal.WaitForCount("outcome 2 0", 1));
  m_bWell = false;
  ASSERT_TRUE(m_journal.WaitForCount("back 1", 1));
  EXPECT_EQ(m_journal.Lines(), (std::vector<std::string>{"up", "outcome 2 0", "down no answer in time", "back 1"}));
}

TEST_F(HttpDriverTest, ReopenEndsThePause) {
  m_iStatus = 503;
  Serve([this](const ServedRequest&) { return StatusAnswer(m_iStatus, "Retry-After: 3600\r\n"); });
  Start();
  ASSERT_TRUE(m_journal.WaitForCount("down HTTP status 503, to be tried again after 3600 s", 1));
  m_iStatus = 200;
  m_pDriver->Reopen();
  ASSERT_TRUE(m_journal.WaitForCount("up", 1));
}

TEST_F(HttpDriverTest, ReopenDuringAnAttemptThatFailsEndsThePauseAfterIt) {
  Serve([this](const ServedRequest&) {
    m_held.Wait();
    return StatusAnswer(m_iStatus, "Retry-After: 3600\r\n");
  });
  m_iStatus = 503;
  m_journal.fnOnDown = [this] { m_iStatus = 200; };
  Start();
  ASSERT_TRUE(WaitForRequest([](const ServedRequest&) { return true; }));
  m_pDriver->Reopen();
  m_held.Release();
  ASSERT_TRUE(m_journal.WaitForCount("up", 1));
  EXPECT_EQ(m_journal.Lines(),
            (std::vector<std::string>{"down HTTP status 503, to be tried again after 3600 s", "up"}));
}

TEST_F(HttpDriverTest, ARenewalWaitsForASlowRequestOnlyForAWhileAndIsMadeLater) {
  m_options.uTimeoutMs = 9000;
  HoldFirstRecord();
  m_pDriver->Reopen();
  // After the longest pause of this test it is due.
  std::this_thread::sleep_for(std::chrono::milliseconds(2 * m_options.uLongestBackOffMs));
  Deliver(2, 4);
  ASSERT_TRUE(m_journal.WaitForCount("outcome", 3));
  EXPECT_EQ(m_journal.Count("outcome 1 "), 0U);
  m_held.Release();
  ASSERT_TRUE(m_journal.WaitForCount("outcome 1 0", 1));
  const size_t uConnections = m_pServer->CountConnections();
  const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
  for (uint64_t i = 5; m_pServer->CountConnections() == uConnections && std::chrono::steady_clock::now() < deadline;
       ++i) {
    Deliver(i, i);
    ASSERT_TRUE(m_journal.WaitForDelivered(i));
  }
  EXPECT_GT(m_pServer->CountConnections(), uConnections);
  EXPECT_EQ(m_journal.Count("down"), 0U);
}

TEST_F(HttpDriverTest, AStopDeliversWhatIsWaiting) {
  Serve([](const ServedRequest&) { return StatusAnswer(200); });
  StartUp();
  Deliver(1, 500);
  m_pDriver->Stop();
  EXPECT_EQ(m_journal.Count("outcome"), 500U);
}

TEST_F(HttpDriverTest, AStopDeliversWhatWaitsForARenewal) {
  HoldFirstRecord();
  m_pDriver->Reopen();
  // Records go out beside the first one until the renewal is due, at the latest after the longest pause of this test.
  std::this_thread::sleep_for(std::chrono::milliseconds(2 * m_options.uLongestBackOffMs));
  Deliver(2, 40);
  std::thread stopper([this] { m_pDriver->Stop(); });
  EXPECT_TRUE(m_journal.WaitForCount("outcome", 39));
  m_held.Release();
  stopper.join();
  EXPECT_EQ(m_journal.CountDelivered(), 40U);
}

TEST_F(HttpDriverTest, AStopEndsAgainstAServerThatNeverAnswers) {
  Serve([this](const ServedRequest& request) {
    if (!request.vecIds.empty()) {
      m_held.Wait();
    }
    return StatusAnswer(200);
  });
  m_options.uTimeoutMs = 600000;
  StartUp();
  Deliver(1, 3);
  ASSERT_TRUE(WaitForRequest([](const ServedRequest& request) { return !request.vecIds.empty(); }));
  m_pDriver->Stop();
  EXPECT_EQ(m_journal.Count("outcome"), 0U);
}

TEST_F(HttpDriverTest, StartsAgainAfterAStop) {
  Serve([](const ServedRequest&) { return StatusAnswer(200); });
  StartUp();
  Deliver(1, 1);
  ASSERT_TRUE(m_journal.WaitForCount("outcome 1 0", 1));
  m_pDriver->Stop();
  m_pDriver->Stop();
  std::string strError;
  ASSERT_TRUE(m_pDriver->Start(&m_journal, strError)) << strError;
  EXPECT_FALSE(m_pDriver->Start(&m_journal, strError));
  EXPECT_EQ(strError, "already started");
  ASSERT_TRUE(m_journal.WaitForCount("up", 2));
  Deliver(2, 2);
  ASSERT_TRUE(m_journal.WaitForCount("outcome 2 0", 1));
}

TEST_F(HttpDriverTest, RefusesToStartWithWhatCanNeverWork) {
  m_options.strUrl = "ftp://host.example/";
  std::string strError;
  EXPECT_FALSE(CreateHttpDriver(m_options)->Start(&m_journal, strError));
  EXPECT_EQ(strError, "the URL's scheme is ftp: only http and https are known");
  m_options.strUrl = "http://127.0.0.1:1/";
  m_options.strAgentId = "nobody";
  EXPECT_FALSE(CreateHttpDriver(m_options)->Start(&m_journal, strError));
  EXPECT_EQ(strError, "the agent's id is no UUID");
}

// Whichever allocation of the driver's thread fails, every record is answered or comes back, and the next one goes out.
TEST_F(HttpDriverTest, WithoutMemoryEveryRecordIsAnsweredAndTheLinkWorksOn) {
  Serve([](const ServedRequest& request) {
    return StatusAnswer(request.vecIds.size() > 1 && request.vecIds.back() == 4 ? 413 : 200);
  });
  unsigned int uFailures = 0;
  // Until some allocations in a row, the last ones, do not come any more.
  for (unsigned int uNth = 1, uQuiet = 0; uQuiet < 5; ++uNth) {
    ClearLog();
    CJournal journal;
    std::optional<CNthAllocationFault> fault;
    std::unique_ptr<ILinkDriver> pDriver = CreateHttpDriver(m_options);
    ILinkDriver& driver = *pDriver;
    std::atomic<bool> bFirst{true};
    journal.fnOnUp = [&] {
      if (bFirst.exchange(false)) {
        for (uint64_t i = 1; i <= 4; ++i) {
          driver.Deliver(MakeRecord(i, "data"));
        }
        fault.emplace(uNth);
      }
    };
    std::string strError;
    ASSERT_TRUE(driver.Start(&journal, strError)) << strError;
    for (const char* pszRecord : {"1", "2", "3", "4"}) {
      const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
      const auto fnSettled = [&] {
        return journal.Count(std::string("outcome ") + pszRecord) + journal.Count(std::string("back ") + pszRecord);
      };
      while (fnSettled() == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      EXPECT_EQ(fnSettled(), 1U) << "record " << pszRecord << ", allocation " << uNth;
    }
    driver.Deliver(MakeRecord(99, "data"));
    EXPECT_TRUE(journal.WaitForCount("outcome 99", 1)) << uNth;
    driver.Stop();
    EXPECT_EQ(journal.Count("outcome"), journal.Count("outcome 1") + journal.Count("outcome 2") +
                                            journal.Count("outcome 3") + journal.Count("outcome 4") +
                                            journal.Count("outcome 99"));
    const auto vecLines = journal.Lines();
    EXPECT_TRUE(std::none_of(vecLines.begin(), vecLines.end(),
                             [](const std::string& strLine) { return strLine.ends_with("a0020002"); }));
    const bool bFailed = CountLogLines(3, "http link: std::bad_alloc; the records at hand are to be sent again") > 0;
    uFailures += bFailed ? 1 : 0;
    uQuiet = bFailed ? 0 : uQuiet + 1;
  }
  // Otherwise nothing was shown.
  EXPECT_GT(uFailures, 5U);
}

// With the server link: records come from several threads while the server comes and goes.
TEST_F(HttpDriverTest, EveryRecordHasOneResultWhateverTheServerDoes) {
  constexpr uint64_t kThreads = 3;
  constexpr uint64_t kRecords = 1000;
  std::atomic<unsigned int> uRequest{0};
  std::mutex mutexArrived;
  std::set<uint64_t> setArrived;
  Serve([&](const ServedRequest& request) -> std::string {
    switch (request.vecIds.empty() ? 1 : ++uRequest % 5) {
      case 0:
        return StatusAnswer(503);
      case 2:
        return {};
      case 3:
        if (request.vecIds.size() > 1) {
          return StatusAnswer(413);
        }
        break;
      default:
        break;
    }
    const std::lock_guard lock(mutexArrived);
    setArrived.insert(request.vecIds.begin(), request.vecIds.end());
    return StatusAnswer(200);
  });
  CFakeRouter router;
  CFakeContext& context = *router.m_pContext;
  std::unique_ptr<IServerLink> pLink = CreateServerLink(router, CreateHttpDriver(m_options));
  std::string strError;
  ASSERT_TRUE(pLink->Start(strError)) << strError;
  std::vector<std::thread> vecThreads;
  for (uint64_t u64Thread = 0; u64Thread < kThreads; ++u64Thread) {
    vecThreads.emplace_back([&context, u64Thread] {
      for (uint64_t i = u64Thread * kRecords + 1; i <= (u64Thread + 1) * kRecords; ++i) {
        context.Arrive(MakeText(i, "data"));
      }
    });
  }
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
  while (pLink->GetCounts().u64Held > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  pLink->Stop();
  m_pServer.reset();  // it may still be at work on a request that the stop has cut short
  const ServerLinkCounts counts = pLink->GetCounts();
  EXPECT_EQ(counts.u64HeldAtStop, 0U);
  EXPECT_EQ(counts.u64Rejected, 0U);
  EXPECT_EQ(counts.u64Delivered + counts.u64Retried, kThreads * kRecords);
  EXPECT_GT(CountLogLines(3, "server link down: "), 0U);
  EXPECT_LE(counts.u64Retried, (CountLogLines(3, "server link down: ") + 1) * kAnsweredPerOutage);
  std::set<std::string> setAnswered;
  for (const std::string& strLine : context.TakeJournal()) {
    if (strLine.starts_with("result ")) {
      const std::string strId = strLine.substr(7, strLine.rfind(' ') - 7);
      EXPECT_TRUE(setAnswered.insert(strId).second) << strLine;
      if (strLine.ends_with(" 0")) {
        EXPECT_TRUE(setArrived.contains(std::stoull(strId, nullptr, 16))) << strLine;
      }
    }
  }
  EXPECT_EQ(setAnswered.size(), kThreads * kRecords);
}

}  // namespace
