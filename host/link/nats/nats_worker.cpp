#include "host/link/nats/nats_worker.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "host/link/identified_line.h"
#include "host/link/nats/nats_names.h"
#include "host/protocol/host_status.h"
#include "host/router/thread_setup.h"
#include "host/service/thread_left_behind.h"
#include "platform/log.h"

namespace {

constexpr std::chrono::milliseconds kStopGrace{3000};
// Beyond the grace: for a call of libnats that is about to return.
constexpr std::chrono::milliseconds kStopSlack{750};
constexpr std::chrono::milliseconds kStopLook{50};
// Nothing is waited for longer; a look at the state costs nothing.
constexpr std::chrono::milliseconds kLongestWait{60000};
// Records wait here rather than in the buffers of a connection.
constexpr size_t kMostPendingBytes = 1U << 20;
// A buffer that one giant record has blown up is not kept.
constexpr size_t kKeptBufferSize = 1U << 20;

}  // namespace

CNatsWorker::CNatsWorker(const NatsDriverOptions& options, NatsServers servers, ILinkEvents* pEvents)
    : m_options(options),
      m_servers(std::move(servers)),
      m_pEvents(pEvents),
      m_hLog(LogInit("qmhost")),
      m_token(options.strTokenFile),
      m_password(options.strPasswordFile),
      m_backOff(options.u64Seed != 0 ? options.u64Seed : MakeSeed(),
                std::chrono::milliseconds(options.uLongestBackOffMs)),
      m_random(options.u64Seed != 0 ? options.u64Seed : MakeSeed()),
      m_nextAttempt(Clock::now() + m_backOff.Spread()) {}

CNatsWorker::~CNatsWorker() {
  if (!m_bAbandoned) {
    LogUninit(m_hLog);
  }
}

void CNatsWorker::Start() {
  m_thread = std::thread([pSelf = shared_from_this()] { pSelf->Run(); });
}

void CNatsWorker::Stop() {
  const auto begun = Clock::now();
  auto until = begun + kStopGrace + kStopSlack;
  std::unique_lock lock(m_mutex);
  m_bStop = true;
  m_condition.notify_all();
  while (!m_bDone && Clock::now() < until) {
    m_condition.wait_for(lock, kStopLook, [this] { return m_bDone; });
    if (!m_bDone && m_bConnecting) {
      // There is nothing that a connection could still deliver.
      until = std::min(until, begun + kStopSlack);
    }
  }
  if (m_bDone) {
    lock.unlock();
    m_thread.join();
    return;
  }
  // It hangs in libnats. A call into the link ends by itself.
  m_bAbandoned = true;
  m_condition.wait(lock, [this] { return !m_bTelling; });
  lock.unlock();
  NoteThreadLeftBehind();
  m_thread.detach();
  LogPrint(m_hLog, kLogWarning, "nats link: a call of libnats does not return, and its thread is left behind");
  LogUninit(m_hLog);  // by the thread it would come too late for the last lines to be written
}

void CNatsWorker::Deliver(const std::shared_ptr<LinkRecord>& pRecord) {
  bool bWake = false;
  bool bQueued = true;
  try {
    const std::lock_guard lock(m_mutex);
    m_vecDelivered.push_back(pRecord);
    m_bWake = true;
    bWake = m_bWaiting;
  } catch (const std::exception&) {
    bQueued = false;
  }
  if (!bQueued) {
    m_pEvents->OnOutcome(pRecord, kHostSendTimeout);
  } else if (bWake) {
    m_condition.notify_all();
  }
}

void CNatsWorker::Reopen() {
  const std::lock_guard lock(m_mutex);
  m_bReopen = true;
  m_bWake = true;
  m_condition.notify_all();
}

void CNatsWorker::Wake() {
  const std::lock_guard lock(m_mutex);
  if (!std::exchange(m_bWake, true) && m_bWaiting) {
    m_condition.notify_all();
  }
}

void CNatsWorker::Run() {
  SetUpThread("qmhost-nats");
  const CLoopThread loopThread(m_loop);
  for (bool bGoOn = true; bGoOn;) {
    try {
      bGoOn = Step();
    } catch (const std::exception& exception) {
      Surrender(exception.what());
    }
  }
  m_pSession.reset();
  m_deqQueue.clear();
  const std::lock_guard lock(m_mutex);
  m_vecDelivered.clear();
  m_bDone = true;
  m_condition.notify_all();
}

bool CNatsWorker::Step() {
  m_loop.Turn();
  TakeOrders();
  if (m_bUp && !m_pSession) {
    GoDown("no memory for a new connection");  // a renewal was cut short
  }
  TakeAnswers();
  if (IsDone()) {
    return false;
  }
  if (IsRenewalDue() && !m_stopUntil && (!m_bUp || m_pSession->IsIdle())) {
    Renew();
  }
  std::string strReason;
  if (!m_bUp && !m_stopUntil && Clock::now() >= m_nextAttempt) {
    if (TryServers(0, strReason)) {
      ComeUp();
    } else {
      StayDown(strReason);
    }
    return true;
  }
  if (m_bUp && (m_stopUntil || !IsRenewalDue())) {
    PublishNext();
  }
  if (m_uNeeded != 0 && m_pSession->IsIdle()) {
    if (!m_stopUntil) {
      MoveForFirst();
    }
    return true;
  }
  Wait();
  return true;
}

void CNatsWorker::TakeOrders() {
  const std::lock_guard lock(m_mutex);
  m_bWake = false;
  m_deqQueue.insert(m_deqQueue.end(), m_vecDelivered.begin(), m_vecDelivered.end());
  m_vecDelivered.clear();
  if (std::exchange(m_bReopen, false)) {
    m_renewAt = m_renewAt.value_or(Clock::now() + m_backOff.Spread());
    m_nextAttempt = *m_renewAt;
  }
  if (m_bStop && !m_stopUntil) {
    m_stopUntil = Clock::now() + kStopGrace;
  }
}

bool CNatsWorker::IsDone() const {
  const std::lock_guard lock(m_mutex);
  return m_bAbandoned || (m_stopUntil && (!m_bUp || Clock::now() >= *m_stopUntil ||
                                          (m_pSession->IsIdle() && (m_deqQueue.empty() || m_uNeeded != 0))));
}

void CNatsWorker::Wait() {
  auto until = Clock::now() + kLongestWait;
  if (!m_bUp) {
    until = std::min(until, m_nextAttempt);
  }
  if (m_stopUntil) {
    until = std::min(until, *m_stopUntil);
  } else if (m_renewAt && (*m_renewAt > Clock::now() || !m_bUp || m_pSession->IsIdle())) {
    // One that has fallen due since the step began is for the next step.
    until = std::min(until, *m_renewAt);
  }
  std::unique_lock lock(m_mutex);
  m_bWaiting = true;
  m_condition.wait_until(lock, until, [this] { return m_bWake || (m_bStop && !m_stopUntil) || m_loop.IsTurnDue(); });
  m_bWaiting = false;
}

void CNatsWorker::PublishNext() {
  std::string strReason;
  while (!m_deqQueue.empty() && m_uNeeded == 0 && m_pSession->CountPending() < m_options.uPending &&
         m_pSession->PendingBytes() < kMostPendingBytes) {
    if (!PublishOne(strReason)) {
      GoDown(strReason);
      return;
    }
  }
}

bool CNatsWorker::PublishOne(std::string& strReason) {
  const std::shared_ptr<LinkRecord>& pRecord = m_deqQueue.front();
  m_strSubject.clear();
  m_strId.clear();
  m_strPayload.clear();
  AppendSubject(m_strSubject, m_options.strSubject, m_options.strAgentId, pRecord->tags);
  AppendRecordId(m_strId, m_options.strAgentId, pRecord->tags.u64DataId);
  AppendIdentifiedLine(m_strPayload, m_options.strAgentId, *pRecord, m_recordLine);
  m_strPayload.pop_back();  // a message needs no line break
  const size_t uBytes = m_pSession->MessageSize(m_strId.size(), m_strPayload.size());
  const size_t uMost = m_pSession->MaxMessage();
  bool bSent = true;
  if (uBytes > uMost && uMost >= kLeastMessage) {
    m_uNeeded = uBytes;
  } else {
    NatsAnswer answer;
    bSent = m_pSession->Publish(pRecord, m_strSubject, m_strId, m_strPayload, answer);
    strReason = bSent ? std::string() : "a record could not be sent: " + DescribeNatsAnswer(answer);
  }
  if (m_strPayload.capacity() > kKeptBufferSize) {
    m_strPayload = std::string();
  }
  if (bSent && m_uNeeded == 0) {
    m_deqQueue.pop_front();
  }
  return bSent;
}
