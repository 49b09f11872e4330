#include "stress_router.h"

#include <array>

namespace {
constexpr int kDestinationThreads = 3;
constexpr size_t kMostKeptBack = 40;  // well inside the window, so that the others still move
constexpr uint64_t kNobodysId = 1ULL << 63;
constexpr std::array<uint32_t, 3> kRetryable = {0xE0010019, 0xB0010025, 0xB0010026};
constexpr std::array<uint32_t, 3> kRejecting = {1, 0xE0010018, 0xB0010024};
}  // namespace

CStressRouter::CStressRouter(CStressLedger& ledger, uint32_t uSeed) : m_ledger(ledger), m_random(uSeed) {
  m_bKeepSent = false;
  m_pfnOnSend = [this](const SentMessage& sent) { return OnSend(sent); };
  for (int i = 0; i < kDestinationThreads; ++i) {
    m_vecDestination.emplace_back([this] { RunDestination(); });
  }
}

CStressRouter::~CStressRouter() {
  {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_bEnding = true;
  }
  m_changed.notify_all();
  for (std::thread& thread : m_vecDestination) {
    thread.join();
  }
}

bool CStressRouter::Once(uint32_t uOf) {
  return m_random() % uOf == 0;
}

CStressRouter::Event CStressRouter::DrawEvent(const SentMessage& sent) {
  Event event;
  event.sent = sent;
  const uint32_t uDraw = m_random() % 20;
  if (uDraw < 3) {
    event.uResult = kRetryable[m_random() % kRetryable.size()];
  } else if (uDraw < 6) {
    event.uResult = kRejecting[m_random() % kRejecting.size()];
  }
  event.bCompletion = event.uResult != 0 && Once(5);
  return event;
}

uint32_t CStressRouter::OnSend(const SentMessage& sent) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (Once(50)) {
    lock.unlock();
    m_ledger.SendSeen(sent.u64DataId, sent.strText, false);
    return 0xE0010099;
  }
  m_ledger.SendSeen(sent.u64DataId, sent.strText, true);
  Event event = DrawEvent(sent);
  if (m_bKeepBack && m_vecKeptBack.size() < kMostKeptBack && Once(30)) {
    m_vecKeptBack.push_back(std::move(event));
    return 0;
  }
  std::future<void> given;
  if (Once(10)) {  // the result is quicker than the send
    event.pGiven = std::make_shared<std::promise<void>>();
    given = event.pGiven->get_future();
  }
  if (Once(10)) {
    Add(event.uResult == 0 || Once(2) ? Event{sent, event.uResult, false, nullptr} : DrawEvent(sent));
  }
  if (Once(30)) {
    Event unknown = DrawEvent(sent);
    unknown.sent.u64DataId ^= kNobodysId;
    Add(std::move(unknown));
  }
  if (Once(4)) {  // handed over; the result is still to come
    Add({sent, 0, true, nullptr});
  }
  Add(std::move(event));
  lock.unlock();
  if (given.valid()) {
    given.wait();
  }
  return 0;
}

void CStressRouter::Add(Event event) {
  m_vecWaiting.push_back(std::move(event));
  m_changed.notify_all();
}

void CStressRouter::RunDestination() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (true) {
    m_changed.wait(lock, [&] { return m_bEnding || !m_vecWaiting.empty(); });
    if (m_bEnding) {
      return;
    }
    std::swap(m_vecWaiting[m_random() % m_vecWaiting.size()], m_vecWaiting.back());
    Event event = std::move(m_vecWaiting.back());
    m_vecWaiting.pop_back();
    ++m_iBusy;
    lock.unlock();
    const bool bTaken = Give(event);
    if (event.pGiven) {
      event.pGiven->set_value();
      event.pGiven = nullptr;
    }
    lock.lock();
    --m_iBusy;
    if (!bTaken && !(event.bCompletion && event.uResult == 0)) {
      event.bCompletion = false;  // too late for a completion; the result may still come as a message
      m_vecUndelivered.push_back(std::move(event));
    }
  }
}

bool CStressRouter::Give(const Event& event) {
  if (event.bCompletion) {
    return Complete(event.sent, static_cast<int>(event.uResult));
  }
  const std::optional<Answer> answer = DeliverResult(event.sent.u64DataId, event.uResult);
  if (answer) {
    m_ledger.ResultAnswered(event.sent.u64DataId, event.uResult, answer->uRet);
  }
  return answer.has_value();
}

void CStressRouter::ReleaseKeptBack(bool bKeepMore) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_bKeepBack = bKeepMore;
  for (Event& event : m_vecKeptBack) {
    Add(std::move(event));
  }
  m_vecKeptBack.clear();
}

void CStressRouter::RetryUndelivered() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  for (Event& event : m_vecUndelivered) {
    Add(std::move(event));
  }
  m_vecUndelivered.clear();
}

bool CStressRouter::IsIdle() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_vecWaiting.empty() && m_iBusy == 0;
}

std::set<uint64_t> CStressRouter::KeptBackIds() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  std::set<uint64_t> setIds;
  for (const Event& event : m_vecKeptBack) {
    setIds.insert(event.sent.u64DataId);
  }
  return setIds;
}
