// The completion lane: threads of their own that deliver sends and broadcasts and complete sends, in the order of the
// queue (one thread) or nearly so (several).
#ifndef QMLOGCACHE_HOST_ROUTER_COMPLETION_LANE_H_
#define QMLOGCACHE_HOST_ROUTER_COMPLETION_LANE_H_

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "host/router/registry.h"
#include "host/router/wait_table.h"
#include "host/service/loop.h"

struct SendItem {
  std::shared_ptr<Session> pSender;
  GUID dest{};
  uint32_t uMsgType = 0;
  std::string strData;
  uint64_t u64Handle = 0;                 // 0: the sender wants no completion
  MonotonicMs i64Deadline = kNoDeadline;  // always that without a completion
};

struct BroadcastItem {
  std::shared_ptr<Session> pSender;
  uint32_t uMsgType = 0;
  std::string strData;
};

struct CompletionItem {
  std::shared_ptr<Session> pSender;
  IMRSendComplete* pComplete = nullptr;
  uint64_t u64UserValue = 0;
  uint64_t u64Token = 0;
  uint32_t uMsgType = 0;
  int32_t iResult = 0;
  std::string strReply;
};

using LaneItem = std::variant<SendItem, BroadcastItem, CompletionItem>;
// One item in its place in the queue. Made where memory may be refused; putting it into the queue then cannot fail.
using LaneTicket = std::list<LaneItem>;

class CCompletionLane {
 public:
  // fnRun does one item; it throws nothing. It is called on the lane's threads, without a lock.
  CCompletionLane(unsigned int uThreads, std::function<void(LaneItem&)> fnRun);
  ~CCompletionLane();
  CCompletionLane(const CCompletionLane&) = delete;
  CCompletionLane& operator=(const CCompletionLane&) = delete;

  // Any thread. False, and the ticket kept, once the lane is stopping.
  bool Put(LaneTicket&& ticket);
  // Returns when no item runs any more; items still queued are forgotten.
  void Stop();

 private:
  void Run();

  const std::function<void(LaneItem&)> m_fnRun;
  const bool m_bAlone;  // one thread: it takes all there is at once
  std::mutex m_Lock;    // guards m_listQueue, m_uIdle and m_bStopping
  std::condition_variable m_Filled;
  LaneTicket m_listQueue;
  unsigned int m_uIdle = 0;
  bool m_bStopping = false;
  CLoop m_Loop{"qmhost-lane", [this] { m_Filled.notify_all(); }};
  std::vector<std::thread> m_vecThreads;  // last: they use all of the above
};

#endif  // QMLOGCACHE_HOST_ROUTER_COMPLETION_LANE_H_
