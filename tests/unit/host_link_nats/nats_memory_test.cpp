// The nats driver without memory.
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/link/nats/nats_driver.h"
#include "host/protocol/host_status.h"
#include "scripted_nats_server.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/allocation_pause.h"
#include "tests/unit/host_link/link_test_support.h"
#include "tests/unit/host_link/log_capture.h"

// The driver's pause after a failure is made short.
extern "C" int nanosleep(const timespec* pPause, timespec* /*pLeft*/) {
  constexpr int64_t kShorter = 100;
  const int64_t i64Nanoseconds = (pPause->tv_sec * 1000000000LL + pPause->tv_nsec) / kShorter;
  const timespec pause{i64Nanoseconds / 1000000000LL, i64Nanoseconds % 1000000000LL};
  return clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
}

namespace {

constexpr uint32_t kBack = 1;  // no result of a record: it was given back
constexpr size_t kMaxPayload = 100000;

// Keeps what each record was answered.
class CAnswers final : public ILinkEvents {
 public:
  void OnOutcome(const std::shared_ptr<LinkRecord>& pRecord, uint32_t uResult) override {
    fnOnOutcome();
    Note(*pRecord, uResult);
  }
  void OnGivenBack(std::vector<std::shared_ptr<LinkRecord>> vecRecords) override {
    for (const auto& pRecord : vecRecords) {
      Note(*pRecord, kBack);
    }
  }
  void OnUp() override {
    const CAllocationPause pause;
    fnOnUp();
  }
  void OnDown(const std::string& /*strReason*/) override {}

  // Set before the driver starts; they run on its thread.
  std::function<void()> fnOnUp;
  std::function<void()> fnOnOutcome;

  // The first answer; nothing when it does not come within the hang guard.
  std::optional<uint32_t> WaitFor(uint64_t u64DataId) {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, kHangGuard, [&] { return m_mapAnswers.count(u64DataId) != 0; })) {
      return std::nullopt;
    }
    return m_mapAnswers[u64DataId].front();
  }
  std::map<uint64_t, std::vector<uint32_t>> All() {
    const std::lock_guard lock(m_mutex);
    return m_mapAnswers;
  }

 private:
  void Note(const LinkRecord& record, uint32_t uAnswer) {
    const CAllocationPause pause;
    {
      const std::lock_guard lock(m_mutex);
      m_mapAnswers[record.tags.u64DataId].push_back(uAnswer);
    }
    m_changed.notify_all();
  }
  std::mutex m_mutex;  // guards the answers
  std::condition_variable m_changed;
  std::map<uint64_t, std::vector<uint32_t>> m_mapAnswers;
};

struct RunResult {
  bool bSurrendered = false;
  bool bReached = false;  // the allocation that fails, whatever that led to
};

// Two servers that acknowledge; each loses its connection over record 4.
class NatsMemoryTest : public ::testing::Test {
 protected:
  NatsMemoryTest() {
    m_options.strServers = m_one.Url() + "," + m_two.Url();
    m_options.strStream = "s";
    m_options.strSubject = "p";
    m_options.strAgentId = "0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11";
    m_options.uLongestBackOffMs = 1;
    m_options.u64Seed = 7;
  }

  // A driver that renews its connection, then gets four records, of which the second is too large for the servers. The
  // uNth allocation of its thread from then on fails, unless uNth is 0.
  RunResult Run(unsigned int uNth) {
    ClearLog();
    {
      const std::lock_guard lock(m_mutex);
      m_setStored.clear();
    }
    CAnswers answers;
    const std::unique_ptr<ILinkDriver> pDriver = CreateNatsDriver(m_options);
    std::optional<CNthAllocationFault> fault;  // made on the driver's thread, and asked there
    std::atomic<bool> bReached{false};
    answers.fnOnOutcome = [&] { bReached = fault.has_value() && fault->HasFailed(); };
    answers.fnOnUp = [&, bFirst = true]() mutable {
      if (std::exchange(bFirst, false)) {
        pDriver->Reopen();
        for (uint64_t i = 1; i <= 4; ++i) {
          pDriver->Deliver(MakeRecord(i, std::string(i == 2 ? kMaxPayload : 1, 'x')));
        }
        fault.emplace(uNth);
      }
    };
    std::string strError;
    EXPECT_TRUE(pDriver->Start(&answers, strError)) << strError;
    for (uint64_t i = 1; i <= 4; ++i) {
      EXPECT_TRUE(answers.WaitFor(i).has_value()) << "record " << i << ", allocation " << uNth;
    }
    // Afterwards it works as before, but for records that come back while it finds its way.
    uint64_t u64Last = 100;
    pDriver->Deliver(MakeRecord(u64Last, "x"));
    while (answers.WaitFor(u64Last).value_or(kHostOk) != kHostOk && u64Last < 110) {
      pDriver->Deliver(MakeRecord(++u64Last, "x"));
    }
    EXPECT_EQ(answers.WaitFor(u64Last), kHostOk) << "allocation " << uNth;
    pDriver->Stop();
    for (const auto& [u64DataId, vecAnswers] : answers.All()) {
      EXPECT_EQ(vecAnswers.size(), 1U) << "record " << u64DataId << ", allocation " << uNth;
      EXPECT_TRUE(vecAnswers.front() != kHostOk || IsStored(u64DataId)) << u64DataId << ", allocation " << uNth;
      EXPECT_TRUE(vecAnswers.front() != kHostRecordRefused || u64DataId == 2) << u64DataId << ", allocation " << uNth;
    }
    const bool bSurrendered =
        CountLogLines(3, "nats link: std::bad_alloc; the records at hand are to be sent again") > 0;
    return {bSurrendered, bSurrendered || bReached};
  }

  std::string Answer(uint64_t u64DataId) {
    const std::lock_guard lock(m_mutex);
    if (u64DataId == 4) {
      return {};
    }
    m_setStored.insert(u64DataId);
    return GoodAck();
  }
  bool IsStored(uint64_t u64DataId) {
    const std::lock_guard lock(m_mutex);
    return m_setStored.count(u64DataId) != 0;
  }

  std::mutex m_mutex;  // guards what was acknowledged in this run
  std::set<uint64_t> m_setStored;
  const CScriptedNatsServer m_one{kMaxPayload, [this](uint64_t u64DataId) { return Answer(u64DataId); }};
  const CScriptedNatsServer m_two{kMaxPayload, [this](uint64_t u64DataId) { return Answer(u64DataId); }};
  NatsDriverOptions m_options;
};

TEST_F(NatsMemoryTest, WithMemoryEachRecordGetsTheAnswerThatItDeserves) {
  EXPECT_FALSE(Run(0).bSurrendered);
  EXPECT_EQ(CountLogLines(3, "nats link: every server refused record 2 for good"), 1U);
}

// Whichever allocation of the driver's thread fails, each record gets one answer, and the next ones are delivered.
TEST_F(NatsMemoryTest, WithoutMemoryEachRecordGetsOneAnswerAndTheLinkWorksOn) {
  unsigned int uFailures = 0;
  // Until some allocations in a row do not come any more. How many there are differs from run to run by a few; those
  // whose failure is made up for at once are no end.
  for (unsigned int uNth = 1, uQuiet = 0; uQuiet < 5; ++uNth) {
    const RunResult result = Run(uNth);
    uFailures += result.bSurrendered ? 1 : 0;
    uQuiet = result.bReached ? 0 : uQuiet + 1;
  }
  // Otherwise nothing was shown.
  EXPECT_GT(uFailures, 50U);
}

}  // namespace
