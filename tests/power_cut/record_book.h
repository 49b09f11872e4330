// What has to be in a file: its records after every commit, and how many of the commits were acknowledged.
#ifndef QMLOGCACHE_POWER_CUT_RECORD_BOOK_H_
#define QMLOGCACHE_POWER_CUT_RECORD_BOOK_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct Row {
  uint64_t u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  std::string strProduct;
  std::string strCombo;
  std::string strData;
  bool operator==(const Row&) const = default;
};
using Rows = std::map<uint64_t, Row>;

// What one commit changes. A commit may change nothing.
struct Commit {
  bool bClears = false;  // first of all, everything goes
  std::vector<uint64_t> vecRemoved;
  std::vector<Row> vecAdded;
};

void Apply(const Commit& commit, Rows& rows);

class CRecordBook {
 public:
  // The state that the power cut left; all of it is durable.
  void StartFrom(const Rows& rows);
  void Begin(const Commit& commit) { m_vecCommits.push_back(commit); }
  // Everything begun so far was acknowledged.
  void Acknowledge() { m_uAcknowledged = m_vecCommits.size(); }
  // All commits so far, less the newest uNewest, are on the disk whatever the setting.
  void MakeDurable(size_t uNewest = 0) { m_uDurable = m_vecCommits.size() - uNewest; }
  // The newest state that equals the rows; none when no state does. A number of commits.
  [[nodiscard]] std::optional<size_t> Find(const Rows& rows) const;
  // The commits after that state never were: a killed process has left it.
  void CutBack(size_t uCommits);

  Rows Newest() const { return StateAfter(m_vecCommits.size()); }
  [[nodiscard]] Rows StateAfter(size_t uCommits) const;
  // Rows that are acknowledged, that no later commit takes away, and that are not among these.
  [[nodiscard]] size_t CountLost(const Rows& rows) const;
  size_t Commits() const { return m_vecCommits.size(); }
  size_t Acknowledged() const { return m_uAcknowledged; }
  size_t Durable() const { return m_uDurable; }

 private:
  Rows m_start;
  std::vector<Commit> m_vecCommits;
  size_t m_uAcknowledged = 0;
  size_t m_uDurable = 0;
};

#endif  // QMLOGCACHE_POWER_CUT_RECORD_BOOK_H_
