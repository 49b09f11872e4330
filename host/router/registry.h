// Which components live in the host and which message types they take.
//
// Locks: one reader-writer lock, held for the look-up or the change alone, never while a component is called. What a
// look-up returns stays valid as long as the caller keeps it, but may have been taken away meanwhile: whoever calls
// into it enters its gate first, and whoever took it away closes that gate.
#ifndef QMLOGCACHE_HOST_ROUTER_REGISTRY_H_
#define QMLOGCACHE_HOST_ROUTER_REGISTRY_H_

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/router/activity_gate.h"
#include "host/router/many_reader_lock.h"
#include "host/router/router.h"

// Types that any number of components may register: a directed send picks the component by its GUID.
bool IsDirectedType(uint32_t uMsgType);
bool IsBroadcastType(uint32_t uMsgType);

// A component from its Initialize to its Uninitialize.
struct Session {
  uint64_t u64Id = 0;  // never 0, never used twice
  GUID guid{};
  CActivityGate completions;
};

// What a component has given to be called. Whoever calls it is inside the gate.
struct Callee {
  CActivityGate gate;
};

struct Registration : Callee {
  std::shared_ptr<Session> pSession;
  uint32_t uMsgType = 0;
  IMRReceiveComplete* pReceiver = nullptr;
  void* pContext = nullptr;
};

struct RequestEntry : Callee {
  IRequestHandler* pHandler = nullptr;
};

// What the registry keeps about one context. Guarded by the registry's lock.
struct ContextState {
  std::shared_ptr<Session> pSession;  // null outside Initialize and Uninitialize
  bool bEnded = false;                // Uninitialize has been called since the last Initialize
  std::shared_ptr<RequestEntry> pRequests;
  // Taken away but perhaps still running, when taken away from inside: the end of the session waits for them.
  std::vector<std::weak_ptr<Callee>> vecLeaving;
};

// What ended with a session; the caller closes the gates.
struct EndedSession {
  std::shared_ptr<Session> pSession;
  std::vector<std::shared_ptr<Callee>> vecCallees;
};

class CRegistry {
 public:
  [[nodiscard]] uint32_t Begin(ContextState& state, const GUID& guid);
  // kHostBadArgument when no session is there.
  [[nodiscard]] uint32_t End(ContextState& state, EndedSession& ended);
  // Null with the status to answer: kHostStopping after Uninitialize, kHostBadArgument before Initialize.
  std::shared_ptr<Session> Current(const ContextState& state, uint32_t& uStatus) const;
  // The same for its id alone; 0 where there is none.
  uint64_t CurrentId(const ContextState& state, uint32_t& uStatus) const;

  [[nodiscard]] uint32_t Add(const ContextState& state, uint32_t uMsgType, IMRReceiveComplete* pReceiver,
                             void* pContext);
  // Null when the context has not registered that type.
  std::shared_ptr<Registration> Remove(ContextState& state, uint32_t uMsgType);
  // Returns the entry that was there.
  std::shared_ptr<RequestEntry> SetRequests(ContextState& state, std::shared_ptr<RequestEntry> pRequests);

  std::shared_ptr<Registration> FindOnly(uint32_t uMsgType) const;
  std::shared_ptr<Registration> FindDirected(const GUID& guid, uint32_t uMsgType) const;
  bool HasDirected(const GUID& guid, uint32_t uMsgType) const;
  std::vector<std::shared_ptr<Registration>> FindAll(uint32_t uMsgType) const;
  std::shared_ptr<RequestEntry> FindRequests(const GUID& guid) const;

 private:
  static uint32_t NoSession(const ContextState& state);
  // Null when nobody has registered that. The lock is held.
  const std::shared_ptr<Registration>* FindDirectedLocked(const GUID& guid, uint32_t uMsgType) const;
  static void Leave(ContextState& state, const std::shared_ptr<Callee>& pCallee);

  mutable CManyReaderLock m_Lock;  // guards all members and every ContextState
  uint64_t m_u64LastId = 0;
  std::vector<ContextState*> m_vecLive;  // contexts with a session
  std::unordered_map<uint32_t, std::vector<std::shared_ptr<Registration>>> m_mapRegistrations;
};

#endif  // QMLOGCACHE_HOST_ROUTER_REGISTRY_H_
