#include "host/router/completion_lane.h"

#include <algorithm>
#include <utility>

#include "host/router/thread_setup.h"

CCompletionLane::CCompletionLane(unsigned int uThreads, std::function<void(LaneItem&)> fnRun)
    : m_fnRun(std::move(fnRun)), m_bAlone(uThreads <= 1) {
  const unsigned int uCount = std::max(uThreads, 1U);
  m_vecThreads.reserve(uCount);
  try {
    for (unsigned int uThread = 0; uThread < uCount; ++uThread) {
      m_vecThreads.emplace_back([this] { Run(); });
    }
  } catch (...) {
    Stop();
    throw;
  }
}

CCompletionLane::~CCompletionLane() {
  Stop();
}

bool CCompletionLane::Put(LaneTicket&& ticket) {
  bool bWake = false;
  {
    const std::lock_guard<std::mutex> guard(m_Lock);
    if (m_bStopping) {
      return false;
    }
    m_listQueue.splice(m_listQueue.end(), ticket);
    bWake = m_uIdle > 0;
  }
  if (bWake) {
    m_Filled.notify_one();  // not under the lock, where the woken thread would have to wait for it
  }
  return true;
}

void CCompletionLane::Stop() {
  LaneTicket listForgotten;
  {
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_bStopping = true;
    listForgotten.swap(m_listQueue);
    m_Filled.notify_all();
  }
  for (std::thread& thread : m_vecThreads) {
    if (thread.joinable()) {
      thread.join();
    }
  }
}

void CCompletionLane::Run() {
  SetUpThread("qmhost-lane");
  const CLoopThread loopThread(m_Loop);
  LaneTicket listBatch;
  std::unique_lock<std::mutex> guard(m_Lock);
  while (true) {
    ++m_uIdle;
    m_Filled.wait(guard, [this] { return m_bStopping || !m_listQueue.empty() || m_Loop.IsTurnDue(); });
    --m_uIdle;
    m_Loop.Turn();
    if (m_bStopping) {
      return;
    }
    // With several threads an item must not wait behind another thread's long call.
    if (m_bAlone) {
      listBatch.swap(m_listQueue);
    } else if (!m_listQueue.empty()) {
      listBatch.splice(listBatch.end(), m_listQueue, m_listQueue.begin());
    }
    guard.unlock();
    while (!listBatch.empty()) {
      m_fnRun(listBatch.front());
      listBatch.pop_front();
      m_Loop.Turn();
    }
    guard.lock();
  }
}
