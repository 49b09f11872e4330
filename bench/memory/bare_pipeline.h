// What the component's road in memory would be without the component: four locked queues, one ordered map, a work
// thread with the same window, and the same tagged text. No statistics, no log, no states, no limits.
#ifndef QMLOGCACHE_BENCH_MEMORY_BARE_PIPELINE_H_
#define QMLOGCACHE_BENCH_MEMORY_BARE_PIPELINE_H_

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "bench/support/loaded_component.h"

class CBarePipeline {
 public:
  explicit CBarePipeline(ISendSink& sink);
  ~CBarePipeline();
  CBarePipeline(const CBarePipeline&) = delete;
  CBarePipeline& operator=(const CBarePipeline&) = delete;

  bool Send(uint32_t u32Sender, uint32_t uMsgType, std::string_view svData);
  void Settle(uint64_t u64DataId, uint32_t uResult);

 private:
  struct Record {
    uint64_t u64DataId;
    int iPriv;
    std::string strText;
  };
  struct Queue {
    std::mutex mutex;
    std::deque<std::shared_ptr<Record>> deqRecords;
  };

  std::shared_ptr<Record> Take();
  void Work();

  ISendSink& m_sink;
  std::atomic<uint64_t> m_u64LastId{0};
  std::array<Queue, 4> m_queues;
  std::mutex m_mapMutex;
  std::map<uint64_t, std::shared_ptr<Record>> m_mapRecords;

  std::mutex m_wakeMutex;
  std::condition_variable m_wake;  // a record was queued or settled
  uint64_t m_u64Wakes = 0;
  bool m_bEnding = false;
  std::atomic<int> m_iInFlight{0};
  std::thread m_worker;
};

#endif  // QMLOGCACHE_BENCH_MEMORY_BARE_PIPELINE_H_
