// A router and destination that do everything a host may do to the component: results late, doubled, out of order, for
// ids nobody knows, before the send returns, through the completion, retryable and rejecting, and refused sends.
//
// Every accepted send gets at least one result in the end, unless it is kept back; so what is in flight comes down
// again and the gate never stays shut.
#ifndef QMLOGCACHE_TESTS_COMPONENT_STRESS_ROUTER_H_
#define QMLOGCACHE_TESTS_COMPONENT_STRESS_ROUTER_H_

#include <future>
#include <memory>
#include <random>
#include <set>
#include <thread>

#include "stress_ledger.h"
#include "test_router.h"

class CStressRouter : public CTestRouter {
 public:
  CStressRouter(CStressLedger& ledger, uint32_t uSeed);
  // Ends the threads; what is still waiting is dropped. The component is stopped.
  ~CStressRouter() override;

  // Results that were kept back are given from now on. bKeepMore: others may be kept back instead.
  void ReleaseKeptBack(bool bKeepMore);
  // Results that the component could not be given, because it had stopped, are tried again.
  void RetryUndelivered();
  // No result waits or is being given.
  bool IsIdle();
  // Records of which some result is kept back.
  std::set<uint64_t> KeptBackIds();

 private:
  struct Event {
    SentMessage sent;
    uint32_t uResult = 0;
    bool bCompletion = false;                    // through the send's completion
    std::shared_ptr<std::promise<void>> pGiven;  // set when it has been given
  };

  uint32_t OnSend(const SentMessage& sent);
  Event DrawEvent(const SentMessage& sent);
  void Add(Event event);
  void RunDestination();
  // False when the component no longer takes it.
  bool Give(const Event& event);
  // True once in uOf times.
  bool Once(uint32_t uOf);

  CStressLedger& m_ledger;

  std::mutex m_mutex;  // guards everything below
  std::condition_variable m_changed;
  std::mt19937 m_random;
  bool m_bEnding = false;
  bool m_bKeepBack = true;
  int m_iBusy = 0;
  std::vector<Event> m_vecWaiting;
  std::vector<Event> m_vecKeptBack;
  std::vector<Event> m_vecUndelivered;

  std::vector<std::thread> m_vecDestination;
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_STRESS_ROUTER_H_
