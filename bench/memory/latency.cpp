// From the call of the receiver to the send, by the time stamp that a record's data begins with.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/memory/memory_bench.h"
#include "bench/support/loaded_component.h"
#include "bench/support/result_line.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr ResultGroup kGroup = {"latency", kInMemory};
constexpr int kHexadecimal = 16;
constexpr size_t kStampSize = 16;

uint64_t Now() {
  return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

std::string StampedData() {
  std::string strData(kDataSize, 'd');
  char szStamp[kStampSize + 1];
  std::snprintf(szStamp, sizeof(szStamp), "%016llx", static_cast<unsigned long long>(Now()));
  strData.replace(0, kStampSize, szStamp);
  return strData;
}

// Settles each record as it is sent, inside the send, and keeps how long it took to come here.
class CStampSink : public ISendSink {
 public:
  explicit CStampSink(size_t uRecords) { m_vecNanoseconds.reserve(uRecords); }
  void Begin(CLoadedComponent& component) { m_pComponent = &component; }

  uint32_t OnSend(uint64_t u64DataId, std::string_view svTaggedText) override {
    const uint64_t u64Now = Now();
    m_pComponent->Settle(u64DataId, 0);
    // The data is what stands before the last character.
    const std::string strStamp(svTaggedText.substr(svTaggedText.size() - kDataSize - 1, kStampSize));
    const uint64_t u64Sent = std::strtoull(strStamp.c_str(), nullptr, kHexadecimal);
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_vecNanoseconds.push_back(u64Now - u64Sent);
    m_sent.notify_one();
    return 0;
  }
  void WaitFor(size_t uRecords) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_sent.wait(lock, [&] { return m_vecNanoseconds.size() >= uRecords; });
  }
  void Forget() {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_vecNanoseconds.clear();
  }
  void Print(const char* pszCase, int iRound) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    std::sort(m_vecNanoseconds.begin(), m_vecNanoseconds.end());
    const auto quantile = [this](double dPart) {
      constexpr double kNanosecondsAMicrosecond = 1000;
      const auto uAt = static_cast<size_t>(dPart * static_cast<double>(m_vecNanoseconds.size()));
      return static_cast<double>(m_vecNanoseconds[std::min(uAt, m_vecNanoseconds.size() - 1)]) /
             kNanosecondsAMicrosecond;
    };
    kGroup.Print(pszCase, iRound, "p50_us", "us", quantile(0.5));
    kGroup.Print(pszCase, iRound, "p99_us", "us", quantile(0.99));
    kGroup.Print(pszCase, iRound, "p999_us", "us", quantile(0.999));
  }

 private:
  CLoadedComponent* m_pComponent = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_sent;
  std::vector<uint64_t> m_vecNanoseconds;
};

// uBurst records at once, all of them sent before the next ones come.
void MeasureBursts(const BenchOptions& options, const char* pszCase, int iRound, size_t uBurst) {
  const size_t uRecords = options.bQuick ? 5000 : 20000;
  const CBenchInstallation installation(options.strDirectory, "dataflowflag = 2\n");
  CStampSink sink(uRecords + 1);
  CLoadedComponent component(sink);
  sink.Begin(component);
  component.Connect();
  component.Send(1, LOGCACHE_MSG_SYNC_EDR_PRIV_LOW, StampedData());
  sink.WaitFor(1);  // the work thread has noticed that it is connected
  sink.Forget();
  for (size_t uSent = 0; uSent < uRecords;) {
    for (size_t i = 0; i < uBurst; ++i) {
      component.Send(1, LOGCACHE_MSG_SYNC_EDR_PRIV_LOW, StampedData());
    }
    uSent += uBurst;
    sink.WaitFor(uSent);
  }
  sink.Print(pszCase, iRound);
}

// Sends low records one after the other until a real-time one comes, which the first send brings in.
class CPositionSink : public ISendSink {
 public:
  void Begin(CLoadedComponent& component) { m_pComponent = &component; }
  uint32_t OnSend(uint64_t u64DataId, std::string_view svTaggedText) override {
    if (m_bFound) {
      return 0;
    }
    m_pComponent->Settle(u64DataId, 0);
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (svTaggedText.find("><priv=3>") != std::string_view::npos) {
      m_bFound = true;
      m_found.notify_one();
    } else if (m_bSent) {
      ++m_uBefore;
    } else {
      m_bSent = true;
      m_pComponent->Send(1, LOGCACHE_MSG_SYNC_EDR_PRIV_REAL, std::string(kDataSize, 'r'));
    }
    return 0;
  }
  unsigned int SentBefore() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_found.wait(lock, [this] { return m_bFound; });
    return m_uBefore;
  }

 private:
  CLoadedComponent* m_pComponent = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_found;
  bool m_bSent = false;
  bool m_bFound = false;
  unsigned int m_uBefore = 0;
};

void MeasurePosition(const BenchOptions& options, int iRound) {
  constexpr unsigned int kLow = 100000;
  const CBenchInstallation installation(options.strDirectory, "dataflowflag = 2\n");
  CPositionSink sink;
  CLoadedComponent component(sink);
  sink.Begin(component);
  const std::string strData(kDataSize, 'l');
  for (unsigned int i = 0; i < kLow; ++i) {
    if (!component.Send(1, LOGCACHE_MSG_SYNC_EDR_PRIV_LOW, strData)) {
      throw std::runtime_error("a record was refused");
    }
  }
  component.Connect();
  kGroup.Print("realtime_behind_100000_low", iRound, "position", "records sent before it", sink.SentBefore());
}

}  // namespace

void MeasureLatency(const BenchOptions& options) {
  constexpr size_t kWindow = 100;
  if (!options.IsWanted(kGroup.pszGroup)) {
    return;
  }
  for (int iRound = 1; iRound <= options.iRounds; ++iRound) {
    MeasureBursts(options, "one_at_a_time", iRound, 1);
    MeasureBursts(options, "bursts_of_100", iRound, kWindow);
    MeasurePosition(options, iRound);
  }
}
