// Writes records back to their senders' cache files, which are made where they are missing, as the component makes and
// opens them (db/log_cache_db.h). What is in a file stays: a record whose id is there already is left out.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_CACHE_WRITER_H_
#define QMLOGCACHE_TOOLS_QMCACHE_CACHE_WRITER_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/qmcache/cache_record.h"

// No host may run on the directory (host_absence.h).
class CCacheWriter {
 public:
  explicit CCacheWriter(std::string strDirectory);
  ~CCacheWriter();
  CCacheWriter(const CCacheWriter&) = delete;
  CCacheWriter& operator=(const CCacheWriter&) = delete;

  // Takes a record for its sender's file; row: where it stood, with product, combo and data. Throws std::runtime_error
  // when a file cannot be written or is damaged itself: what is written to such a file would be lost with it.
  void Add(const StoredRow& row, const CacheRecord& record);
  // Writes what is left.
  void Finish();

  uint64_t Written() const { return m_u64Written; }
  uint64_t AlreadyThere() const { return m_u64AlreadyThere; }

 private:
  struct Waiting {
    std::string strSender;
    StoredRow row;
  };
  void WriteFile(const std::string& strSender, const std::vector<const StoredRow*>& vecRows);

  const std::string m_strDirectory;
  std::vector<Waiting> m_vecWaiting;
  std::set<std::string> m_setSound;  // files that were looked at
  size_t m_uBytes = 0;
  uint64_t m_u64Written = 0;
  uint64_t m_u64AlreadyThere = 0;
};

#endif  // QMLOGCACHE_TOOLS_QMCACHE_CACHE_WRITER_H_
