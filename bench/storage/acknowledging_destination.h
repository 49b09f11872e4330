// The destination of a loaded component: acknowledges every record that it is sent, on a thread of its own.
#ifndef QMLOGCACHE_BENCH_STORAGE_ACKNOWLEDGING_DESTINATION_H_
#define QMLOGCACHE_BENCH_STORAGE_ACKNOWLEDGING_DESTINATION_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include "bench/support/loaded_component.h"

class CAcknowledgingDestination : public ISendSink {
 public:
  CAcknowledgingDestination();
  ~CAcknowledgingDestination() override;
  CAcknowledgingDestination(const CAcknowledgingDestination&) = delete;
  CAcknowledgingDestination& operator=(const CAcknowledgingDestination&) = delete;

  // The component whose records it acknowledges; null before that goes.
  void SetComponent(CLoadedComponent* pComponent);
  uint32_t OnSend(uint64_t u64DataId, std::string_view svTaggedText) override;
  // Waits until that many records in all have been acknowledged and the component has settled them. Throws
  // std::runtime_error after a long time.
  void WaitForSettled(size_t uRecords);

 private:
  void Run();

  std::mutex m_mutex;  // guards everything below but the thread
  std::condition_variable m_condition;
  CLoadedComponent* m_pComponent = nullptr;
  std::deque<uint64_t> m_deqSent;
  size_t m_uSettled = 0;
  bool m_bSettling = false;
  bool m_bStopping = false;
  std::thread m_thread;
};

#endif  // QMLOGCACHE_BENCH_STORAGE_ACKNOWLEDGING_DESTINATION_H_
