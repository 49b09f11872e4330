#include "host/plugins/lifecycle_thread.h"

#include <exception>

#include "host/router/thread_setup.h"

CLifecycleThread::CLifecycleThread() : m_Thread([this] { Loop(); }) {}

CLifecycleThread::~CLifecycleThread() {
  {
    const std::lock_guard<std::mutex> guard(m_Lock);
    m_bStopping = true;
    m_Changed.notify_all();
  }
  m_Thread.join();
}

void CLifecycleThread::Run(const std::function<void()>& fnTask) {
  std::exception_ptr pThrown;
  const std::function<void()> fnGuarded = [&] {
    try {
      fnTask();
    } catch (...) {  // nobody cancels this thread
      pThrown = std::current_exception();
    }
  };
  std::unique_lock<std::mutex> guard(m_Lock);
  m_pTask = &fnGuarded;
  m_Changed.notify_all();
  m_Changed.wait(guard, [this] { return m_pTask == nullptr; });
  if (pThrown) {
    std::rethrow_exception(pThrown);
  }
}

void CLifecycleThread::Loop() {
  SetUpThread("qmhost-life");
  std::unique_lock<std::mutex> guard(m_Lock);
  while (true) {
    m_Changed.wait(guard, [this] { return m_bStopping || m_pTask != nullptr; });
    if (m_pTask == nullptr) {
      return;
    }
    const std::function<void()>* pTask = m_pTask;
    guard.unlock();
    (*pTask)();
    guard.lock();
    m_pTask = nullptr;
    m_Changed.notify_all();
  }
}
