// Books that balance: what producers were told, what the destination made of it, and what is still held.
//
// A record is known by its content, which a test makes unique. Whatever a producer was told to be accepted must end as
// delivered, rejected by the destination, refused by the router, dropped for a reason that a test names, or held in a
// cache file or a backup; nothing else.
//
// Every operation may be called from any thread.
#ifndef QMLOGCACHE_TESTS_ENDURANCE_RECORD_BOOKS_H_
#define QMLOGCACHE_TESTS_ENDURANCE_RECORD_BOOKS_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

enum class Ending { Delivered, Rejected, RefusedByRouter };

struct Balance {
  uint64_t u64Accepted = 0;
  uint64_t u64Refused = 0;  // producers were told "fail"
  uint64_t u64Delivered = 0;
  uint64_t u64Rejected = 0;
  uint64_t u64RefusedByRouter = 0;
  uint64_t u64Held = 0;                        // and not ended
  uint64_t u64Repeats = 0;                     // endings after the first
  uint64_t u64Unanswered = 0;                  // ended or held, and the producer never heard of it
  std::map<std::string, uint64_t> mapDropped;  // by reason, and not ended or held
  std::vector<std::string> vecLost;            // accepted, and nowhere
  std::vector<std::string> vecInvented;        // ended or held, and nobody was told that they were accepted
  // The figures on one line.
  std::string Text() const;
};

class CRecordBooks {
 public:
  void Told(const std::string& strContent, bool bAccepted);
  // Its producer was told nothing, neither yes nor no: it may be anywhere or nowhere.
  void LeftUnanswered(const std::string& strContent);
  void Ended(const std::string& strContent, Ending ending);
  // The component may have let it go, for a reason that its documents name.
  void MayBeDropped(const std::string& strContent, const std::string& strReason);
  bool HasEnded(const std::string& strContent);
  uint64_t Accepted();
  // Records that ended, each counted once.
  uint64_t EndedCount();
  // setHeld: contents that stand in cache files or backups. To be called when no record is in memory.
  Balance Close(const std::set<std::string>& setHeld);

 private:
  std::mutex m_mutex;  // guards everything below
  std::set<std::string> m_setAccepted;
  std::set<std::string> m_setUnanswered;
  uint64_t m_u64Refused = 0;
  std::map<std::string, Ending> m_mapEnded;  // the first ending of each
  uint64_t m_u64Repeats = 0;
  std::map<std::string, std::string> m_mapReason;
};

#endif  // QMLOGCACHE_TESTS_ENDURANCE_RECORD_BOOKS_H_
