// storage_senders.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "bench/storage/groups.h"
#include "bench/storage/measure.h"
#include "bench/storage/sample_records.h"
#include "bench/support/loaded_component.h"
#include "platform/storage_sync.h"
#include "plugin/compctx/message_types.h"

namespace {

// The link is down: nothing is sent.
class CNoDestination : public ISendSink {
 public:
  uint32_t OnSend(uint64_t /*u64DataId*/, std::string_view /*svTaggedText*/) override { return 1; }
};

// Every sender sends its payloads from a thread of its own. The first rows make the files and are not counted.
double RateOfSenders(CLoadedComponent& component, uint32_t u32FirstSender, uint32_t u32Senders,
                     const std::vector<std::string>& vecPayloads) {
  constexpr int kRowsBefore = 2;
  std::atomic<bool> bRefused{false};
  const auto send = [&](uint32_t u32Sender, const std::string& strPayload) {
    if (!component.Send(u32Sender, LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL, strPayload)) {
      bRefused = true;
    }
  };
  for (uint32_t i = 0; i < u32Senders; ++i) {
    for (int iRow = 0; iRow < kRowsBefore; ++iRow) {
      send(u32FirstSender + i, vecPayloads.front());
    }
  }
  const double dSeconds = SecondsOf([&] {
    std::vector<std::thread> vecThreads;
    for (uint32_t i = 0; i < u32Senders; ++i) {
      vecThreads.emplace_back([&, u32Sender = u32FirstSender + i] {
        for (const std::string& strPayload : vecPayloads) {
          send(u32Sender, strPayload);
        }
      });
    }
    for (std::thread& thread : vecThreads) {
      thread.join();
    }
  });
  Require(bRefused ? 1 : 0, "the component refused a record");
  return static_cast<double>(vecPayloads.size() * u32Senders) / dSeconds;
}

}  // namespace

void RunSenders(const BenchOptions& options) {
  constexpr size_t kFew = 250;
  constexpr size_t kMany = 1000;
  Require(QmSetStorageSync(kSyncFull), "QmSetStorageSync");
  const CBenchInstallation installation(options.strDirectory, "dataflowflag = 0\n");
  CNoDestination destination;
  CLoadedComponent component(destination);
  std::vector<std::string> vecPayloads;
  for (size_t i = 1; i <= (options.bQuick ? kFew : kMany); ++i) {
    vecPayloads.push_back(SamplePayload(i));
  }
  uint32_t u32NextSender = 1;
  std::vector<Case> vecCases;
  for (const uint32_t u32Senders : {1U, 2U, 4U}) {
    vecCases.emplace_back([&, u32Senders](int iRound) {
      const double dRate = RateOfSenders(component, u32NextSender, u32Senders, vecPayloads);
      u32NextSender += u32Senders;
      ResultGroup{"storage_senders", kSurvivesPowerCut}.Print(("senders_" + std::to_string(u32Senders)).c_str(), iRound,
                                                              "rate", "records/s", dRate);
    });
  }
  RunInTurn(options.iRounds, vecCases);
}
