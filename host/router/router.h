// The message router: who takes which message, and the threads that carry messages between components.
//
// Three kinds of traffic:
// - Deliveries from producers run on the caller's thread (the ingress threads are the router's intake threads) and are
//   answered through a reply sink.
// - Directed sends (AsynSendEx) and broadcasts are queued to the completion lane, threads of its own that intake cannot
//   fill. A send is delivered to its destination there and then completed there: exactly one outcome a send. One that
//   is answered during its delivery completes on that thread as soon as the receiver has returned.
// - Requests (AgentGetConnect) run on the caller's thread.
//
// Threads: every function may be called from any thread. No lock is held while a component is called.
#ifndef QMLOGCACHE_HOST_ROUTER_ROUTER_H_
#define QMLOGCACHE_HOST_ROUTER_ROUTER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "host/router/intake_counters.h"
#include "plugin/compctx/component_context.h"

// Takes the answer to a producer's message, once, on any thread. Throws nothing.
class IReplySink {
 public:
  virtual ~IReplySink() = default;
  // u64Cookie: the one given to DeliverFromProducer. svText is lent for the call.
  virtual void OnReply(uint64_t u64Cookie, uint32_t uStatus, std::string_view svText) = 0;
};

// Answers requests (AgentGetConnect) addressed to a component inside the host. Called on the asking thread.
class IRequestHandler {
 public:
  virtual ~IRequestHandler() = default;
  // Returns the reply status, 0 with the reply text in strReply.
  virtual uint32_t HandleRequest(uint32_t uCode, std::string_view svRequest, std::string& strReply) = 0;
};

// A component's context with what only components inside the host may do.
class IHostContext : public IComponentContext {
 public:
  // Null takes the handler away; returns when no request runs in it any more.
  virtual void SetRequestHandler(IRequestHandler* pHandler) = 0;
  // Delivers to every component that registered the type, on the completion lane. The bytes are copied.
  virtual uint32_t Broadcast(uint32_t uMsgType, std::string_view svPayload) = 0;
};

struct RouterOptions {
  unsigned int uCompletionThreads = 1;   // one delivers in order; results, too, but for those given during a delivery
  unsigned int uReplyTimeoutMs = 30000;  // how long a producer's message may stay unanswered
};

class IRouter {
 public:
  virtual ~IRouter() = default;  // stops the lane; every context must have been uninitialised and released
  // A context of its own for one component. It stays usable as long as the caller keeps it.
  virtual std::shared_ptr<IHostContext> CreateContext() = 0;
  // Hands a producer's message to the component that registered its type. Returns 0 when it was handed over: exactly
  // one OnReply follows, possibly before the return. Otherwise a host status and no OnReply. pData is lent for the
  // call.
  virtual uint32_t DeliverFromProducer(const GUID& sender, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                                       const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie) = 0;
  // From now on DeliverFromProducer answers kHostStopping; returns when none runs any more.
  virtual void StopIntake() = 0;
  // What became of producers' messages so far. Any thread.
  virtual IntakeCounts GetIntakeCounts() const = 0;
};

std::unique_ptr<IRouter> CreateRouter(const RouterOptions& options);

#endif  // QMLOGCACHE_HOST_ROUTER_ROUTER_H_
