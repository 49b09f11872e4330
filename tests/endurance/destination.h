// The far end of the record road: takes what the component sends and answers in its own time, well or badly, or not at
// all. Keeps the books of what it made of each record.
//
// The router's hooks run on the component's threads; Answer belongs to the test's.
#ifndef QMLOGCACHE_TESTS_ENDURANCE_DESTINATION_H_
#define QMLOGCACHE_TESTS_ENDURANCE_DESTINATION_H_

#include <atomic>
#include <deque>
#include <mutex>
#include <random>
#include <string>

#include "record_books.h"
#include "tests/component/test_router.h"

// How a destination answers, in thousandths of the sends. What is left is delivered.
struct Manners {
  unsigned int uRefused = 0;  // by the router, at once
  unsigned int uRejected = 0;
  unsigned int uRetry = 0;
  unsigned int uSilent = 0;  // no answer, ever
};

// What a test knows a record by: its content up to the first semicolon.
std::string KeyOf(const std::string& strContent);

class CDestination {
 public:
  // Sets the router's hooks; to be made before the component starts.
  CDestination(CTestRouter& router, CRecordBooks& books, uint32_t uSeed);
  void SetManners(const Manners& manners) { m_manners = manners; }
  // While it is down, the first sends of an outage are answered with a time-out and the others wait.
  void SetUp(bool bUp);
  bool IsUp() const { return m_bUp; }
  // Answers what has arrived. False when nothing had.
  bool Answer();
  // The component has ended: its sends will have no answer.
  void Forget();

 private:
  struct Pending {
    uint64_t u64DataId = 0;
    std::string strKey;
  };

  uint32_t Take(const SentMessage& sent);
  bool Roll(unsigned int uThousandths);

  CTestRouter& m_router;
  CRecordBooks& m_books;
  Manners m_manners;
  std::atomic<bool> m_bUp{true};
  int m_iTimeoutsLeft = 0;  // of this outage

  std::mutex m_mutex;  // guards everything below
  std::mt19937 m_random;
  std::deque<Pending> m_queuePending;
};

#endif  // QMLOGCACHE_TESTS_ENDURANCE_DESTINATION_H_
