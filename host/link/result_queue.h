// Results that could not be sent for want of memory: they are kept and tried again until they are sent.
#ifndef QMLOGCACHE_HOST_LINK_RESULT_QUEUE_H_
#define QMLOGCACHE_HOST_LINK_RESULT_QUEUE_H_

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "host/service/loop.h"
#include "plugin/compctx/guid.h"

struct LinkResult {
  GUID sender{};  // of the record, and so the one to be told
  uint64_t u64DataId = 0;
  uint32_t uResult = 0;
};

class CResultQueue {
 public:
  // fnPost sends one result and gives the router's status. It throws nothing and is called without a lock, on the
  // queue's own thread and in Stop.
  explicit CResultQueue(std::function<uint32_t(const LinkResult&)> fnPost) : m_fnPost(std::move(fnPost)) {}
  ~CResultQueue() { Stop(); }
  CResultQueue(const CResultQueue&) = delete;
  CResultQueue& operator=(const CResultQueue&) = delete;

  // False with a reason.
  bool Start(std::string& strError);
  // Tries what is left one more time and forgets it. To be called when nothing calls Keep any more; may follow no Start.
  void Stop();
  // Takes no memory. False when the queue is full. Any thread.
  bool Keep(const LinkResult& result);

 private:
  static constexpr size_t kCapacity = 1024;

  void Run();
  void DropFirstLocked();

  const std::function<uint32_t(const LinkResult&)> m_fnPost;
  std::thread m_thread;  // of Start and Stop alone
  CLoop m_loop{"qmhost-result", [this] { m_changed.notify_all(); }};

  std::mutex m_mutex;  // guards all below
  std::condition_variable m_changed;
  std::array<LinkResult, kCapacity> m_aResults;  // a ring
  size_t m_uFirst = 0;
  size_t m_uCount = 0;
  bool m_bStopping = false;
};

#endif  // QMLOGCACHE_HOST_LINK_RESULT_QUEUE_H_
