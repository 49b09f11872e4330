// Counts the router's callbacks that are inside the component, so that nothing they use is taken away from under them.
//
// Every callback opens a scope first. It gives the manager that is open at that moment, or null after Close: a callback
// never brings a manager to life, and one that got a manager keeps Close from freeing it.
#ifndef QMLOGCACHE_MANAGER_CALLBACK_SCOPE_H_
#define QMLOGCACHE_MANAGER_CALLBACK_SCOPE_H_

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
  // Waits until no callback (of that kind) is inside, those of the calling thread excepted, at most ten seconds each.
  // False when some still are.
  static bool WaitUntilOutside(CallbackKind kind);
  static bool WaitUntilOutside();

 private:
  CallbackKind m_kind;
  CLogCacheMgr* m_pManager;
};

#endif  // QMLOGCACHE_MANAGER_CALLBACK_SCOPE_H_
