#include "host/router/completion_lane.h"

#include <algorithm>
#include <utility>

#include "host/router/thread_setup.h"

namespace {
thread_local const CCompletionLane* t_pHeld = nullptr;  // the lane that this thread does not wake at present
}  // namespace

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
    // One notification for a thread that sleeps, however many items come before it runs.
    bWake = t_pHeld != this && m_uIdle > m_uWakes;
    m_uWakes += bWake ? 1 : 0;
  }
  if (bWake) {
    m_Filled.notify_one();  // not under the lock, where the woken thread would have to wait for it
  }
  return true;
}

void CCompletionLane::HoldWakeUps() {
  t_pHeld = this;
}

void CCompletionLane::ReleaseWakeUps() {
  t_pHeld = nullptr;
  size_t uWake = 0;
  {
    const std::lock_guard<std::mutex> guard(m_Lock);
    uWake = m_uIdle > m_uWakes ? std::min<size_t>(m_uIdle - m_uWakes, m_listQueue.size()) : 0;
    m_uWakes += static_cast<unsigned int>(uWake);
  }
  for (; uWake > 0; --uWake) {
    m_Filled.notify_one();
  }
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
  LaneTicket listBatch;
  std::unique_lock<std::mutex> guard(m_Lock);
  while (true) {
    ++m_uIdle;
    while (!m_bStopping && m_listQueue.empty()) {
      m_Filled.wait(guard);
      // Also counted when nobody notified: then one notification more is sent than needed, and never one less.
      m_uWakes -= m_uWakes > 0 ? 1 : 0;
    }
    --m_uIdle;
    if (m_bStopping) {
      return;
    }
    // With several threads an item must not wait behind another thread's long call.
    if (m_bAlone) {
      listBatch.swap(m_listQueue);
    } else {
      listBatch.splice(listBatch.end(), m_listQueue, m_listQueue.begin());
    }
    guard.unlock();
    while (!listBatch.empty()) {
      m_fnRun(listBatch.front());
      listBatch.pop_front();
    }
    guard.lock();
  }
}
