// The books of a stress run, kept from outside the component: what producers were told, what the router was given to
// send, what the destination's results were answered, and what the component says about it on its log.
//
// Every operation may be called from any thread.
#ifndef QMLOGCACHE_TESTS_COMPONENT_STRESS_LEDGER_H_
#define QMLOGCACHE_TESTS_COMPONENT_STRESS_LEDGER_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "log_recorder.h"

// What the books of one life say.
struct LedgerTotals {
  uint64_t u64Accepted = 0;       // producers told "success"
  uint64_t u64Refused = 0;        // producers told "fail" for a record that was filed in vain
  uint64_t u64Malformed = 0;      // messages that are no record
  uint64_t u64Sends = 0;          // accepted by the router
  uint64_t u64SendsRefused = 0;   // refused by the router
  uint64_t u64SentIds = 0;        // different records among all of these
  uint64_t u64Delivered = 0;      // records the component says it dropped as delivered
  uint64_t u64Rejected = 0;       // ... as rejected
  uint64_t u64Dropped = 0;        // ... as refused by the router
  uint64_t u64Raced = 0;          // settlements that found the record and then lost it to another one
  uint64_t u64DeliveredTold = 0;  // results "delivered" that were answered "success"
  uint64_t u64RejectedTold = 0;   // results "rejected" that were answered "success"

  uint64_t Settled() const { return u64Delivered + u64Rejected + u64Dropped; }
  uint64_t Held() const { return u64Accepted - Settled(); }
};

class CStressLedger {
 public:
  // A new life begins, which knows nothing of the ones before: their ids are remembered as such.
  void BeginLife();
  // A new life begins, which takes over every record that is not settled. The books go on.
  void ContinueInNextLife();

  // A producer is about to hand over a record of that content, and has been answered.
  void ProducerAnswered(const std::string& strContent, bool bAccepted);
  void MalformedAnswered();
  // The component sends; bAccepted: the router's word on it.
  void SendSeen(uint64_t u64DataId, std::string_view svText, bool bAccepted);
  // A result message was answered.
  void ResultAnswered(uint64_t u64DataId, uint32_t uResult, uint32_t uAnswer);
  // The component printed a line.
  void LineSeen(const LogLine& line);

  LedgerTotals Totals();
  // Records that were sent and not settled.
  std::set<uint64_t> UnsettledIds();
  // Contents that a producer was told to be accepted and that were not settled.
  std::multiset<std::string> UnsettledContents();
  // The statistics lines since the life began.
  size_t StatisticsCount();
  // Waits for the uCount-th statistics line of this life; empty when it does not come.
  std::string WaitForStatistics(size_t uCount);
  // Everything that must not be, in words; empty when the books are in order. Called when all threads are at rest.
  std::vector<std::string> Faults();

 private:
  struct Record {
    std::string strContent;
    std::string strText;
    int iSettled = 0;             // times the component said so
    int iTold = 0;                // final results answered "success"
    bool bSettledBefore = false;  // in an earlier life
  };

  void Fault(const std::string& strWhat);
  void Settle(const std::string& strLine, uint64_t& u64Counter);

  std::mutex m_mutex;  // guards everything below
  std::condition_variable m_changed;
  LedgerTotals m_totals;
  std::set<std::string> m_setAccepted;  // contents
  std::unordered_map<std::string, uint64_t> m_mapIdByContent;
  std::unordered_map<uint64_t, Record> m_mapRecords;
  std::set<uint64_t> m_setEarlierIds;
  std::vector<std::string> m_vecStatistics;
  std::vector<std::string> m_vecFaults;
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_STRESS_LEDGER_H_
