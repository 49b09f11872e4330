// What the stress tests share: an installation, four producers that call without end, a destination that answers in
// every wrong way, and the books.
#ifndef QMLOGCACHE_TESTS_COMPONENT_STRESS_FIXTURE_H_
#define QMLOGCACHE_TESTS_COMPONENT_STRESS_FIXTURE_H_

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "install_prefix.h"
#include "log_recorder.h"
#include "plugin_host.h"
#include "replaced_clock.h"
#include "stress_ledger.h"
#include "stress_router.h"

// The parameter is the seed.
class CStressTest : public ::testing::TestWithParam<uint32_t> {
 protected:
  CStressTest();
  void TearDown() override;

  // Producers that call until the router says that the component takes no more, or until u64Most records in all.
  void StartProducers(uint64_t u64Most);
  void JoinProducers();

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
  // Waits until that many different records were sent. A stretch without any send may be single-send mode waiting for a
  // result that is kept back: the agent connects anew.
  [[nodiscard]] bool WaitForSends(uint64_t u64Ids);
  // Every record was sent, and settled but for those of which a result is kept back. The broadcasts end single-send
  // mode, which would wait for these.
  [[nodiscard]] bool WaitForRest();
  bool IsAtRest();
  void ExpectNoFault();

  static constexpr time_t kFourHours = 14400;
  static constexpr std::chrono::seconds kStressGuard{240};

  uint64_t m_u64MostWaiting = 500;  // records that producers may be ahead of the sends

  CInstallPrefix m_prefix;
  CLogRecorder& m_log;
  CReplacedClock& m_clock;
  CStressLedger m_ledger;
  CStressRouter m_router;
  CPluginHost m_host;

 private:
  void Produce(int iProducer, uint64_t u64Most);
  // False when the router no longer delivers.
  bool ProduceOne(int iProducer, std::mt19937& random);
  bool IsFarAhead();

  std::vector<std::thread> m_vecProducers;
  std::atomic<bool> m_bProduce{false};
  std::atomic<uint64_t> m_u64Begun{0};
  std::atomic<uint64_t> m_u64Content{0};
  std::atomic<uint32_t> m_uProducerSeed{0};  // another one for each start
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_STRESS_FIXTURE_H_
