// The router's workings, shared by the router and its contexts, so that a context stays usable after the router is gone
// (everything is then refused).
#ifndef QMLOGCACHE_HOST_ROUTER_ROUTER_CORE_H_
#define QMLOGCACHE_HOST_ROUTER_ROUTER_CORE_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>

#include "host/router/activity_gate.h"
#include "host/router/completion_lane.h"
#include "host/router/deadline_timer.h"
#include "host/router/intake_counters.h"
#include "host/router/registry.h"
#include "host/router/router.h"
#include "host/router/wait_table.h"

// A producer that waits for the answer to its message.
struct ProducerWaiter {
  std::shared_ptr<IReplySink> pSink;
  uint64_t u64Cookie = 0;
  size_t uPriority = kNotARecord;
};

class CRouterCore {
 public:
  explicit CRouterCore(const RouterOptions& options);
  ~CRouterCore();
  CRouterCore(const CRouterCore&) = delete;
  CRouterCore& operator=(const CRouterCore&) = delete;

  uint32_t BeginSession(ContextState& state, const GUID& guid);
  // Returns when nothing of the session runs any more, the caller's own callbacks excepted.
  uint32_t EndSession(ContextState& state);
  uint32_t Receive(const ContextState& state, uint32_t uMsgType, IMRReceiveComplete* pReceiver, void* pContext);
  uint32_t UnReceive(ContextState& state, uint32_t uMsgType);
  void SetRequests(ContextState& state, IRequestHandler* pHandler);

  uint32_t Deliver(const GUID& sender, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                   const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie);
  IntakeCounts GetIntakeCounts() const { return m_Counters.Snapshot(); }
  uint32_t Reply(const ContextState& state, int32_t iRet, std::string_view svReply, void* pReplyHandle);
  // pComplete may be null. *pu64Act is written before the message is queued.
  uint32_t Send(const ContextState& state, const GUID& dest, uint32_t uMsgType, std::string_view svData,
                IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act, uint32_t uTimeoutMs);
  uint32_t Broadcast(const ContextState& state, uint32_t uMsgType, std::string_view svPayload);
  uint32_t Request(const GUID& dest, uint32_t uCode, std::string_view svRequest, uint32_t& uStatus, void*& pReply,
                   uint32_t& uReplyLength);

  void StopIntake();
  // Ends intake, timer and lane. Every later call is refused.
  void Stop();

 private:
  void RunItem(LaneItem& item);
  void RunSend(SendItem& item);
  void RunBroadcast(const BroadcastItem& item);
  void RunCompletion(const CompletionItem& item);
  // Gives a message to one receiver on this thread, which is inside the registration's gate.
  void Hand(Registration& registration, const GUID& sender, std::string_view svData, uint64_t u64Handle);
  // Deliver without the counting of what was not handed over.
  uint32_t HandOver(const GUID& sender, uint32_t uMsgType, std::string_view svData,
                    const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie);
  // Ends a producer's wait. Counted first, so that a producer finds its answer in the counts.
  void Answer(const ProducerWaiter& waiter, uint32_t uStatus, std::string_view svText);
  static void SetOutcome(LaneTicket& ticket, int32_t iResult, std::string&& strReply);
  // Ends a send's wait: its completion goes to the lane. Cannot fail.
  void Complete(LaneTicket& ticket, int32_t iResult, std::string&& strReply);
  MonotonicMs Expire(MonotonicMs i64Now);

  const RouterOptions m_Options;
  void* const m_hLog;
  CRegistry m_Registry;
  CActivityGate m_IntakeGate;
  std::atomic<uint64_t> m_u64LastToken{0};
  CIntakeCounters m_Counters;
  CWaitTable<ProducerWaiter> m_Producers;
  CWaitTable<LaneTicket> m_Sends;  // each waiter is the completion of the send, ready but for its outcome
  CCompletionLane m_Lane;
  CDeadlineTimer m_Timer;
};

#endif  // QMLOGCACHE_HOST_ROUTER_ROUTER_CORE_H_
