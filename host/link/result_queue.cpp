#include "host/link/result_queue.h"

#include <chrono>
#include <system_error>

#include "host/protocol/host_status.h"
#include "host/router/thread_setup.h"

namespace {

constexpr std::chrono::milliseconds kRetryDelay{100};

}  // namespace

bool CResultQueue::Start(std::string& strError) {
  {
    const std::lock_guard lock(m_mutex);
    m_bStopping = false;
    m_uCount = 0;
  }
  try {
    m_thread = std::thread([this] { Run(); });
    return true;
  } catch (const std::system_error& error) {
    strError = std::string("cannot start a thread: ") + error.what();
    return false;
  }
}

void CResultQueue::Stop() {
  if (!m_thread.joinable()) {
    return;
  }
  {
    const std::lock_guard lock(m_mutex);
    m_bStopping = true;
    m_changed.notify_all();
  }
  m_thread.join();
  for (; m_uCount > 0; DropFirstLocked()) {
    static_cast<void>(m_fnPost(m_aResults[m_uFirst]));
  }
}

bool CResultQueue::Keep(const LinkResult& result) {
  const std::lock_guard lock(m_mutex);
  if (m_uCount == kCapacity) {
    return false;
  }
  m_aResults[(m_uFirst + m_uCount) % kCapacity] = result;
  ++m_uCount;
  m_changed.notify_all();
  return true;
}

void CResultQueue::DropFirstLocked() {
  m_uFirst = (m_uFirst + 1) % kCapacity;
  --m_uCount;
}

void CResultQueue::Run() {
  SetUpThread("qmhost-result");
  const CLoopThread loopThread(m_loop);
  std::unique_lock lock(m_mutex);
  while (true) {
    m_changed.wait(lock, [this] { return m_bStopping || m_uCount > 0 || m_loop.IsTurnDue(); });
    m_loop.Turn();
    if (!m_bStopping && m_uCount == 0) {
      continue;
    }
    if (m_changed.wait_for(lock, kRetryDelay, [this] { return m_bStopping; })) {
      return;
    }
    bool bMemory = true;
    while (bMemory && m_uCount > 0 && !m_bStopping) {
      const LinkResult result = m_aResults[m_uFirst];
      lock.unlock();
      bMemory = m_fnPost(result) != kHostNoMemory;
      lock.lock();
      if (bMemory) {
        DropFirstLocked();
      }
    }
  }
}
