#include "host/router/router_core.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "host/protocol/host_status.h"
#include "host/router/component_call.h"

namespace {

// For a send that gives no time-out of its own.
constexpr uint32_t kDefaultSendTimeoutMs = 120000;

void* HandleToPointer(uint64_t u64Handle) {
  return reinterpret_cast<void*>(static_cast<uintptr_t>(u64Handle));  // NOLINT(performance-no-int-to-ptr): a number
}

uint64_t PointerToHandle(const void* pHandle) {
  return reinterpret_cast<uintptr_t>(pHandle);
}

// A send that the calling thread is delivering. When it is answered meanwhile, its completion is left here and runs as
// soon as the receiver returns, without the way through the queue.
struct Delivery {
  const CRouterCore* pCore;
  uint64_t u64Handle;
  LaneTicket completion;
};
thread_local Delivery* t_pDelivery = nullptr;

const unsigned char* Bytes(std::string_view svData) {
  return reinterpret_cast<const unsigned char*>(svData.data());
}

}  // namespace

CRouterCore::CRouterCore(const RouterOptions& options)
    : m_Options(options),
      m_hLog(LogInit("qmhost")),
      m_Producers(0),
      m_Sends(1),
      m_Lane(options.uCompletionThreads, [this](LaneItem& item) { RunItem(item); }),
      m_Timer([this](MonotonicMs i64Now) { return Expire(i64Now); }) {}

CRouterCore::~CRouterCore() {
  Stop();
  LogUninit(m_hLog);
}

void CRouterCore::StopIntake() {
  m_IntakeGate.CloseAndWait();
}

void CRouterCore::Stop() {
  StopIntake();
  m_Timer.Stop();
  m_Lane.Stop();
  // Their messages were delivered, and what became of them is unknown.
  m_Producers.TakeIf([](const auto&, uint64_t, MonotonicMs) { return true; },
                     [this](const ProducerWaiter& waiter) { Answer(waiter, kHostNoReply, {}); });
}

uint32_t CRouterCore::BeginSession(ContextState& state, const GUID& guid) {
  return m_Registry.Begin(state, guid);
}

uint32_t CRouterCore::EndSession(ContextState& state) {
  EndedSession ended;
  const uint32_t uStatus = m_Registry.End(state, ended);
  if (uStatus != kHostOk) {
    return uStatus;
  }
  for (const auto& pCallee : ended.vecCallees) {
    pCallee->gate.CloseAndWait();
  }
  ended.pSession->completions.CloseAndWait();

  // Nobody can answer for the component any more: whoever waits for it learns that now and not at the time-out. The
  // messages were delivered, so it is not known whether they were taken.
  const uint64_t u64Id = ended.pSession->u64Id;
  m_Producers.TakeIf([u64Id](const auto&, uint64_t u64Answerer, MonotonicMs) { return u64Answerer == u64Id; },
                     [this](const ProducerWaiter& waiter) { Answer(waiter, kHostNoReply, {}); });
  const auto fnIsOwn = [&ended](const LaneTicket& ticket) {
    return std::get<CompletionItem>(ticket.front()).pSender == ended.pSession;
  };
  m_Sends.TakeIf([&](const LaneTicket& ticket, uint64_t u64Answerer,
                     MonotonicMs) { return u64Answerer == u64Id || fnIsOwn(ticket); },
                 [&](LaneTicket& ticket) {
                   // The message was delivered and what became of it is unknown, which the time-out code says.
                   if (!fnIsOwn(ticket)) {
                     Complete(ticket, static_cast<int32_t>(kHostSendTimeout), {});
                   }
                 });
  return kHostOk;
}

uint32_t CRouterCore::Receive(const ContextState& state, uint32_t uMsgType, IMRReceiveComplete* pReceiver,
                              void* pContext) {
  return m_Registry.Add(state, uMsgType, pReceiver, pContext);
}

uint32_t CRouterCore::UnReceive(ContextState& state, uint32_t uMsgType) {
  const std::shared_ptr<Registration> pRegistration = m_Registry.Remove(state, uMsgType);
  if (!pRegistration) {
    return kHostBadArgument;
  }
  pRegistration->gate.CloseAndWait();
  return kHostOk;
}

void CRouterCore::SetRequests(ContextState& state, IRequestHandler* pHandler) {
  std::shared_ptr<RequestEntry> pRequests;
  if (pHandler != nullptr) {
    pRequests = std::make_shared<RequestEntry>();
    pRequests->pHandler = pHandler;
  }
  const std::shared_ptr<RequestEntry> pOld = m_Registry.SetRequests(state, std::move(pRequests));
  if (pOld) {
    pOld->gate.CloseAndWait();
  }
}

void CRouterCore::Hand(Registration& registration, const GUID& sender, std::string_view svData, uint64_t u64Handle) {
  CallComponent(m_hLog, "a receiver", [&] {
    const CForeignCode foreign;
    registration.pReceiver->ReceiveCallback(sender, static_cast<long>(registration.uMsgType), Bytes(svData),
                                            static_cast<unsigned int>(svData.size()), HandleToPointer(u64Handle),
                                            registration.pContext);
  });
}

uint32_t CRouterCore::Deliver(const GUID& sender, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                              const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie) {
  const bool bLacksData = pData == nullptr && uLength != 0;
  const uint32_t uStatus =
      bLacksData ? kHostBadArgument
                 : HandOver(sender, uMsgType, {reinterpret_cast<const char*>(pData), uLength}, pSink, u64Cookie);
  if (uStatus != kHostOk) {
    m_Counters.CountRefused(uStatus);
  }
  return uStatus;
}

uint32_t CRouterCore::HandOver(const GUID& sender, uint32_t uMsgType, std::string_view svData,
                               const std::shared_ptr<IReplySink>& pSink, uint64_t u64Cookie) {
  const CActivityScope intake(m_IntakeGate);
  if (!intake.IsInside()) {
    return kHostStopping;
  }
  if (IsDirectedType(uMsgType) || IsBroadcastType(uMsgType)) {
    return kHostNotAllowed;
  }
  if (!pSink) {
    return kHostBadArgument;
  }
  const std::shared_ptr<Registration> pRegistration = m_Registry.FindOnly(uMsgType);
  if (!pRegistration) {
    return kHostNoReceiver;
  }
  // Entered before the wait begins, so that the end of the session cannot come between and overlook it.
  const CActivityScope scope(pRegistration->gate);
  if (!scope.IsInside()) {
    return kHostNoReceiver;
  }
  uint64_t u64Handle = 0;
  try {
    u64Handle = m_Producers.Add(
        {pSink, u64Cookie, PriorityOfMessage(uMsgType, Bytes(svData), static_cast<uint32_t>(svData.size()))},
        pRegistration->pSession->u64Id, kNoDeadline);
  } catch (const std::bad_alloc&) {
    return kHostNoMemory;
  }
  if (u64Handle == 0) {
    return kHostNoMemory;
  }
  Hand(*pRegistration, sender, svData, u64Handle);
  const MonotonicMs i64Deadline = CDeadlineTimer::Now() + m_Options.uReplyTimeoutMs;
  if (m_Producers.SetDeadline(u64Handle, i64Deadline)) {
    m_Timer.Announce(i64Deadline);
  }
  return kHostOk;
}

void CRouterCore::Answer(const ProducerWaiter& waiter, uint32_t uStatus, std::string_view svText) {
  m_Counters.Count(waiter.uPriority, uStatus);
  waiter.pSink->OnReply(waiter.u64Cookie, uStatus, svText);
}

void CRouterCore::SetOutcome(LaneTicket& ticket, int32_t iResult, std::string&& strReply) {
  auto& completion = std::get<CompletionItem>(ticket.front());
  completion.iResult = iResult;
  completion.strReply = std::move(strReply);
}

void CRouterCore::Complete(LaneTicket& ticket, int32_t iResult, std::string&& strReply) {
  SetOutcome(ticket, iResult, std::move(strReply));
  // A lane that is stopping has no components left to tell.
  static_cast<void>(m_Lane.Put(std::move(ticket)));
}

uint32_t CRouterCore::Reply(const ContextState& state, int32_t iRet, std::string_view svReply, void* pReplyHandle) {
  uint32_t uStatus = kHostOk;
  const uint64_t u64Answerer = m_Registry.CurrentId(state, uStatus);
  if (u64Answerer == 0) {
    return uStatus;
  }
  const uint64_t u64Handle = PointerToHandle(pReplyHandle);
  if (m_Producers.IsMine(u64Handle)) {
    ProducerWaiter waiter;
    if (!m_Producers.TakeAnswered(u64Handle, u64Answerer, waiter)) {
      return kHostBadArgument;
    }
    Answer(waiter, static_cast<uint32_t>(iRet), svReply);
    return kHostOk;
  }
  try {
    // Copied first: once the wait is taken nothing may fail.
    std::string strReply(svReply);
    LaneTicket ticket;
    if (!m_Sends.TakeAnswered(u64Handle, u64Answerer, ticket)) {
      return kHostBadArgument;
    }
    if (t_pDelivery != nullptr && t_pDelivery->pCore == this && t_pDelivery->u64Handle == u64Handle) {
      SetOutcome(ticket, iRet, std::move(strReply));
      t_pDelivery->completion.swap(ticket);
    } else {
      Complete(ticket, iRet, std::move(strReply));
    }
    return kHostOk;
  } catch (const std::bad_alloc&) {
    return kHostNoMemory;
  }
}

uint32_t CRouterCore::Send(const ContextState& state, const GUID& dest, uint32_t uMsgType, std::string_view svData,
                           IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act, uint32_t uTimeoutMs) {
  uint32_t uStatus = kHostOk;
  const std::shared_ptr<Session> pSender = m_Registry.Current(state, uStatus);
  if (!pSender) {
    return uStatus;
  }
  if (!m_Registry.HasDirected(dest, uMsgType)) {
    return kHostNoDestination;
  }
  const uint64_t u64Token = m_u64LastToken.fetch_add(1, std::memory_order_relaxed) + 1;
  // Without a completion nobody would learn that the send expired: it is delivered however late.
  const MonotonicMs i64Deadline = pComplete != nullptr
                                      ? CDeadlineTimer::Now() + (uTimeoutMs != 0 ? uTimeoutMs : kDefaultSendTimeoutMs)
                                      : kNoDeadline;
  if (pu64Act != nullptr) {
    *pu64Act = u64Token;
  }
  LaneTicket ticket;
  uint64_t u64Handle = 0;
  try {
    ticket.emplace_back(SendItem{pSender, dest, uMsgType, std::string(svData), 0, i64Deadline});
    if (pComplete != nullptr) {
      LaneTicket completion;
      completion.emplace_back(CompletionItem{pSender, pComplete, u64UserValue, u64Token, uMsgType, 0, {}});
      u64Handle = m_Sends.Add(std::move(completion), kNoAnswerer, i64Deadline);
      if (u64Handle == 0) {
        return kHostNoMemory;
      }
      std::get<SendItem>(ticket.front()).u64Handle = u64Handle;
    }
  } catch (const std::bad_alloc&) {
    return kHostNoMemory;
  }
  if (!m_Lane.Put(std::move(ticket))) {
    LaneTicket refused;
    // The time-out may have been quicker; its completion went to the stopped lane, so none comes either way.
    static_cast<void>(u64Handle != 0 && m_Sends.Take(u64Handle, refused));
    return kHostStopping;
  }
  if (u64Handle != 0) {
    m_Timer.Announce(i64Deadline);
  }
  return kHostOk;
}

uint32_t CRouterCore::Broadcast(const ContextState& state, uint32_t uMsgType, std::string_view svPayload) {
  uint32_t uStatus = kHostOk;
  const std::shared_ptr<Session> pSender = m_Registry.Current(state, uStatus);
  if (!pSender) {
    return uStatus;
  }
  if (!IsBroadcastType(uMsgType)) {
    return kHostBadArgument;
  }
  try {
    LaneTicket ticket;
    ticket.emplace_back(BroadcastItem{pSender, uMsgType, std::string(svPayload)});
    return m_Lane.Put(std::move(ticket)) ? kHostOk : kHostStopping;
  } catch (const std::bad_alloc&) {
    return kHostNoMemory;
  }
}

uint32_t CRouterCore::Request(const GUID& dest, uint32_t uCode, std::string_view svRequest, uint32_t& uStatus,
                              void*& pReply, uint32_t& uReplyLength) {
  const std::shared_ptr<RequestEntry> pRequests = m_Registry.FindRequests(dest);
  if (!pRequests) {
    return kHostNoDestination;
  }
  const CActivityScope scope(pRequests->gate);
  if (!scope.IsInside()) {
    return kHostNoDestination;
  }
  std::string strReply;
  uint32_t uHandled = kHostNoReply;
  // The asking thread may be cancelled in here: nothing is caught but what a handler of the host can throw, and what is
  // held is given up by destructors.
  try {
    uHandled = pRequests->pHandler->HandleRequest(uCode, svRequest, strReply);
  } catch (const std::exception& error) {
    LogPrint(m_hLog, kLogWarning, "*qmhost a request handler threw: %s", error.what());
    return kHostNoReply;
  }
  void* pCopy = nullptr;
  if (!strReply.empty()) {
    pCopy = std::malloc(strReply.size() + 1);
    if (pCopy == nullptr) {
      return kHostNoMemory;
    }
    std::memcpy(pCopy, strReply.c_str(), strReply.size() + 1);
  }
  uStatus = uHandled;
  pReply = pCopy;
  uReplyLength = static_cast<uint32_t>(strReply.size());
  return kHostOk;
}

void CRouterCore::RunItem(LaneItem& item) {
  // Out of memory is all that can be thrown here; the waiting parties then get the time-out.
  CallComponent(m_hLog, "the completion lane", [&] {
    if (auto* pSend = std::get_if<SendItem>(&item)) {
      RunSend(*pSend);
    } else if (const auto* pBroadcast = std::get_if<BroadcastItem>(&item)) {
      RunBroadcast(*pBroadcast);
    } else {
      RunCompletion(std::get<CompletionItem>(item));
    }
  });
}

void CRouterCore::RunSend(SendItem& item) {
  if (item.pSender->completions.IsClosed()) {
    return;
  }
  // Done by the timer for those that want a completion; the clock is asked because the timer may be a little late.
  uint32_t uFailure = kHostOk;
  Delivery delivery{this, item.u64Handle, {}};
  const std::shared_ptr<Registration> pRegistration = m_Registry.FindDirected(item.dest, item.uMsgType);
  if (CDeadlineTimer::Now() >= item.i64Deadline) {
    uFailure = kHostSendTimeout;
  } else if (!pRegistration) {
    uFailure = kHostNoDestination;
  } else {
    const CActivityScope scope(pRegistration->gate);
    if (!scope.IsInside()) {
      uFailure = kHostNoDestination;
    } else if (item.u64Handle == 0 || m_Sends.SetAnswerer(item.u64Handle, pRegistration->pSession->u64Id)) {
      t_pDelivery = &delivery;
      Hand(*pRegistration, item.pSender->guid, item.strData, item.u64Handle);
      t_pDelivery = nullptr;
    }
  }
  LaneTicket ticket;
  if (!delivery.completion.empty()) {
    RunCompletion(std::get<CompletionItem>(delivery.completion.front()));
  } else if (uFailure != kHostOk && item.u64Handle != 0 && m_Sends.Take(item.u64Handle, ticket)) {
    Complete(ticket, static_cast<int32_t>(uFailure), {});
  }
}

void CRouterCore::RunBroadcast(const BroadcastItem& item) {
  if (item.pSender->completions.IsClosed()) {
    return;
  }
  for (const auto& pRegistration : m_Registry.FindAll(item.uMsgType)) {
    const CActivityScope scope(pRegistration->gate);
    if (scope.IsInside()) {
      Hand(*pRegistration, item.pSender->guid, item.strData, 0);
    }
  }
}

void CRouterCore::RunCompletion(const CompletionItem& item) {
  const CActivityScope scope(item.pSender->completions);
  if (!scope.IsInside()) {
    return;
  }
  CallComponent(m_hLog, "a send completion", [&] {
    const CForeignCode foreign;
    item.pComplete->SendCallback(item.iResult, static_cast<long>(item.uMsgType), Bytes(item.strReply),
                                 static_cast<unsigned int>(item.strReply.size()), item.u64Token,
                                 HandleToPointer(item.u64UserValue));
  });
}

MonotonicMs CRouterCore::Expire(MonotonicMs i64Now) {
  MonotonicMs i64Earliest = kNoDeadline;
  const auto fnIsDue = [&i64Earliest, i64Now](const auto&, uint64_t, MonotonicMs i64Deadline) {
    if (i64Deadline <= i64Now) {
      return true;
    }
    i64Earliest = std::min(i64Earliest, i64Deadline);
    return false;
  };
  m_Producers.TakeIf(fnIsDue, [this](const ProducerWaiter& waiter) { Answer(waiter, kHostNoReply, {}); });
  m_Sends.TakeIf(fnIsDue, [this](LaneTicket& ticket) { Complete(ticket, static_cast<int32_t>(kHostSendTimeout), {}); });
  return i64Earliest;
}
