// Counts the router's callbacks that are inside the component, so that nothing they use is taken away from under them.
//
// Every callback opens a scope first. It gives the manager that is open at that moment, or null after Close: a callback
// never brings a manager to life, and one that got a manager keeps Close from freeing it. A host may run a callback
// inside a call that the work thread made with its cancellation window open; the scope closes that window for as long
// as it lives, since a callback takes locks.
#ifndef QMLOGCACHE_MANAGER_CALLBACK_SCOPE_H_
#define QMLOGCACHE_MANAGER_CALLBACK_SCOPE_H_

#include <chrono>

class CLogCacheMgr;

enum class CallbackKind { Receive, SendCompletion };

class CCallbackScope {
 public:
  explicit CCallbackScope(CallbackKind kind);
  ~CCallbackScope();
  CCallbackScope(const CCallbackScope&) = delete;
  CCallbackScope& operator=(const CCallbackScope&) = delete;

  CLogCacheMgr* Manager() const { return m_pManager; }

  // Opens the door for callbacks to pManager; null closes it.
  static void SetManager(CLogCacheMgr* pManager);
  using Deadline = std::chrono::steady_clock::time_point;
  // How long Stop and Close wait for callbacks, and Close for threads.
  static Deadline LongestWait();
  // Waits until no callback (of that kind) is inside, those of the calling thread excepted. False when some still are at
  // the deadline.
  static bool WaitUntilOutside(CallbackKind kind, Deadline deadline);
  static bool WaitUntilOutside(Deadline deadline);

 private:
  CallbackKind m_kind;
  int m_iCancelState = 0;  // of the thread before
  CLogCacheMgr* m_pManager;
};

#endif  // QMLOGCACHE_MANAGER_CALLBACK_SCOPE_H_
