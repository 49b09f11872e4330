// Walks over a write-ahead log without SQLite, which takes a log for ended at the first frame that is not as it was
// written, and says nothing of those behind it.
//
// The format's parts that matter here: a header of 32 bytes with two salts and a checksum; frames, each a header (page,
// size of the database where it ends a transaction, the salts, a checksum over all so far) and a page. A log that is
// begun anew has new salts, and older frames with other salts stand behind its end.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_LOG_WALK_H_
#define QMLOGCACHE_TOOLS_QMCACHE_LOG_WALK_H_

#include <cstdint>
#include <string>
#include <vector>

struct LogFrame {
  uint32_t uPage = 0;
  uint64_t u64At = 0;  // where in the log the page begins
};

struct LogWalk {
  // What was committed stands behind a frame that is not valid, or in it: SQLite does not see it. Frames without the end
  // of their transaction, which a rollback or a crash leaves, are no damage.
  bool bDamaged = false;
  uint32_t uPageSize = 0;
  uint64_t u64ValidFrames = 0;
  uint64_t u64Salts = 0;
  std::vector<LogFrame> vecBehind;  // the frames of this log from the first that is not valid on; empty when undamaged
};

// uPageSize: the database's, which counts when the log's header is damaged. False when there is no log, or it is empty
// or cannot be read. Throws Interruption.
[[nodiscard]] bool WalkLog(const std::string& strLog, uint32_t uPageSize, LogWalk& walk);

// Whether the log of this database is damaged, beside a host that may be writing to it: damage is what is still there
// when it is looked at again.
[[nodiscard]] bool IsLogDamaged(const std::string& strDatabase);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_LOG_WALK_H_
