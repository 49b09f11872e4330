// The one thread on which plug-ins are loaded, started, stopped and unloaded. It serves nothing else, so that a plug-in
// always meets the same thread and none that carries messages.
#ifndef QMLOGCACHE_HOST_PLUGINS_LIFECYCLE_THREAD_H_
#define QMLOGCACHE_HOST_PLUGINS_LIFECYCLE_THREAD_H_

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

class CLifecycleThread {
 public:
  CLifecycleThread();
  ~CLifecycleThread();
  CLifecycleThread(const CLifecycleThread&) = delete;
  CLifecycleThread& operator=(const CLifecycleThread&) = delete;

  // Runs fnTask on the thread and returns when it has ended; an exception of the task is thrown to the caller. One
  // caller at a time, never from the thread itself.
  void Run(const std::function<void()>& fnTask);

 private:
  void Loop();

  std::mutex m_Lock;  // guards m_pTask and m_bStopping
  std::condition_variable m_Changed;
  const std::function<void()>* m_pTask = nullptr;
  bool m_bStopping = false;
  std::thread m_Thread;  // last: it uses all of the above
};

#endif  // QMLOGCACHE_HOST_PLUGINS_LIFECYCLE_THREAD_H_
