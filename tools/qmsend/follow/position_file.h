// Where a follower goes on after a restart: in which file, told by its number and its first bytes, and at which byte.
//
// The file is replaced as a whole, durably, so it is there whole after a crash; a lock file beside it keeps a second
// follower away. It holds a few bytes of the log, so only its owner may read it.
#ifndef QMLOGCACHE_TOOLS_QMSEND_FOLLOW_POSITION_FILE_H_
#define QMLOGCACHE_TOOLS_QMSEND_FOLLOW_POSITION_FILE_H_

#include <cstdint>
#include <ctime>
#include <string>

struct FollowPosition {
  std::string strLog;  // path of the log that is followed, not of a rotated file
  uint64_t u64Device = 0;
  uint64_t u64Inode = 0;
  uint64_t u64Offset = 0;  // of the first byte that is not settled
  std::string strHead;     // first bytes of the file
  std::string strBefore;   // bytes right before the offset

  // False: nothing was read, and there was no log when it was noted.
  bool IsOfAFile() const { return u64Inode != 0; }
};

class CPositionFile {
 public:
  enum class Loaded { Some, None, Failed };

  explicit CPositionFile(std::string strPath);
  ~CPositionFile();  // gives the lock up
  CPositionFile(const CPositionFile&) = delete;
  CPositionFile& operator=(const CPositionFile&) = delete;

  // Makes the file's directory when only that is missing. False with a reason, which names the process that has the
  // lock.
  [[nodiscard]] bool Lock(std::string& strError);
  // noted: when it was written. Failed: with a reason; also when it belongs to another log than strLog.
  Loaded Load(const std::string& strLog, FollowPosition& position, timespec& noted, std::string& strError) const;
  // Durable when it returns. False with a reason; the old position is still there then.
  [[nodiscard]] bool Note(const FollowPosition& position, std::string& strError) const;

  const std::string& Path() const { return m_strPath; }

 private:
  const std::string m_strPath;
  int m_iLock = -1;
};

// The form of the file, for Load and Note. Parsing takes any bytes and returns false for those that are no position.
std::string FormatPosition(const FollowPosition& position);
[[nodiscard]] bool ParsePosition(const std::string& strText, FollowPosition& position);

#endif  // QMLOGCACHE_TOOLS_QMSEND_FOLLOW_POSITION_FILE_H_
