// Steady states with a backlog: each record that is sent is settled at once, and a new one takes its place at the end of
// the queue. All of it happens on the work thread, inside the send, so that nothing waits for another thread.
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "bench/memory/memory_bench.h"
#include "bench/support/loaded_component.h"
#include "bench/support/result_line.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr ResultGroup kCostGroup = {"cost_per_record", kInMemory};
constexpr ResultGroup kMemoryGroup = {"memory_held", kInMemory};
constexpr uint64_t kMostHeld = 500000;

class CReplacingSink : public ISendSink {
 public:
  CReplacingSink(uint64_t u64WarmUp, uint64_t u64Steps) : m_u64WarmUp(u64WarmUp), m_u64Last(u64WarmUp + u64Steps) {}

  void Begin(CLoadedComponent& component) { m_pComponent = &component; }

  uint32_t OnSend(uint64_t u64DataId, std::string_view /*svTaggedText*/) override {
    if (m_u64Done >= m_u64Last) {
      return 0;  // the rest stays in flight until the window is full
    }
    m_pComponent->Settle(u64DataId, 0);
    ++m_u64Done;
    if (m_u64Done == m_u64WarmUp) {
      m_tBegin = std::chrono::steady_clock::now();
    } else if (m_u64Done == m_u64Last) {
      const std::lock_guard<std::mutex> guard(m_mutex);
      m_elapsed = std::chrono::steady_clock::now() - m_tBegin;
      m_bDone = true;
      m_done.notify_one();
      return 0;
    }
    m_pComponent->Send(1, LOGCACHE_MSG_SYNC_EDR_PRIV_LOW, m_strData);
    return 0;
  }

  double NanosecondsARecord() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_done.wait(lock, [this] { return m_bDone; });
    return std::chrono::duration<double, std::nano>(m_elapsed).count() / static_cast<double>(m_u64Last - m_u64WarmUp);
  }

 private:
  const uint64_t m_u64WarmUp;
  const uint64_t m_u64Last;
  const std::string m_strData = std::string(kDataSize, 'd');
  CLoadedComponent* m_pComponent = nullptr;
  uint64_t m_u64Done = 0;  // by the work thread alone
  std::chrono::steady_clock::time_point m_tBegin;
  std::mutex m_mutex;
  std::condition_variable m_done;
  std::chrono::steady_clock::duration m_elapsed{};
  bool m_bDone = false;
};

void Fill(CLoadedComponent& component, uint64_t u64Records) {
  const std::string strData(kDataSize, 'd');
  for (uint64_t i = 0; i < u64Records; ++i) {
    if (!component.Send(1, LOGCACHE_MSG_SYNC_EDR_PRIV_LOW, strData)) {
      throw std::runtime_error("a record was refused");
    }
  }
}

double MeasureCost(const BenchOptions& options, uint64_t u64Held) {
  const CBenchInstallation installation(options.strDirectory, "dataflowflag = 2\n");
  const uint64_t u64Steps = options.bQuick ? 100000 : 500000;
  // Once through the whole backlog, so that what is measured meets records as they lie after some time.
  CReplacingSink sink(u64Held + 1, u64Steps);
  CLoadedComponent component(sink);
  sink.Begin(component);
  Fill(component, u64Held);
  component.Connect();
  return sink.NanosecondsARecord();
}

double ResidentBytes() {
  std::ifstream file("/proc/self/statm");
  double dSize = 0;
  double dResident = 0;
  if (!(file >> dSize >> dResident)) {
    throw std::runtime_error("cannot read /proc/self/statm");
  }
  return dResident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// Length of what is sent for a record of the benchmarks.
class CLengthSink : public ISendSink {
 public:
  uint32_t OnSend(uint64_t u64DataId, std::string_view svTaggedText) override {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_u64DataId = u64DataId;
    m_uLength = svTaggedText.size();
    m_sent.notify_one();
    return 0;
  }
  size_t Wait(CLoadedComponent& component) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_sent.wait(lock, [this] { return m_uLength != 0; });
    const uint64_t u64DataId = m_u64DataId;
    lock.unlock();
    component.Settle(u64DataId, 0);
    return m_uLength;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_sent;
  uint64_t m_u64DataId = 0;
  size_t m_uLength = 0;
};

size_t TaggedTextLength(const BenchOptions& options) {
  const CBenchInstallation installation(options.strDirectory, "dataflowflag = 2\n");
  CLengthSink sink;
  CLoadedComponent component(sink);
  component.Connect();
  Fill(component, 1);
  return sink.Wait(component);
}

void MeasureMemory(const BenchOptions& options, int iRound) {
  const double dTexts = static_cast<double>(kMostHeld * TaggedTextLength(options));
  malloc_trim(0);
  const CBenchInstallation installation(options.strDirectory, "dataflowflag = 2\n");
  CNoSink sink;
  CLoadedComponent component(sink);
  const double dBefore = ResidentBytes();
  Fill(component, kMostHeld);
  const double dHeld = ResidentBytes() - dBefore;
  kMemoryGroup.Print("component_500000", iRound, "rss_bytes", "bytes", dHeld);
  kMemoryGroup.Print("component_500000", iRound, "text_bytes", "bytes", dTexts);
  kMemoryGroup.Print("component_500000", iRound, "ratio", "", dHeld / dTexts);
}

}  // namespace

void MeasureBacklog(const BenchOptions& options) {
  struct Case {
    const char* pszName;
    uint64_t u64Held;
  };
  constexpr Case kCases[] = {{"held_1", 1}, {"held_1000", 1000}, {"held_100000", 100000}, {"held_500000", kMostHeld}};
  for (int iRound = 1; iRound <= options.iRounds; ++iRound) {
    if (options.IsWanted(kMemoryGroup.pszGroup)) {
      MeasureMemory(options, iRound);
    }
    for (const Case& measured : kCases) {
      if (options.IsWanted(kCostGroup.pszGroup)) {
        kCostGroup.Print(measured.pszName, iRound, "ns", "ns/record", MeasureCost(options, measured.u64Held));
      }
    }
  }
}
