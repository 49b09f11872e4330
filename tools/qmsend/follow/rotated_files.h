// The files that a log's rotation has left beside it: FILE.1, FILE-20260131, FILE.old and their like.
#ifndef QMLOGCACHE_TOOLS_QMSEND_FOLLOW_ROTATED_FILES_H_
#define QMLOGCACHE_TOOLS_QMSEND_FOLLOW_ROTATED_FILES_H_

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qmsend/follow/log_file.h"

struct RotatedFile {
  std::string strPath;
  struct stat info {};
  std::optional<uint64_t> number;  // of FILE.NUMBER, the greater the older
  bool bCompressed = false;
};

// What a name says behind the log's own name: nothing, for a name that is not of a rotated file.
struct RotationSuffix {
  std::optional<uint64_t> number;
  bool bCompressed = false;
};
std::optional<RotationSuffix> ParseRotationSuffix(std::string_view svSuffix);

// Whether the first time is before the second.
bool IsEarlier(const timespec& first, const timespec& second);

// The regular files beside the log, in the order in which they were written.
std::vector<RotatedFile> ListRotatedFiles(const std::string& strLog);

// The log itself or one of its rotated files, whichever holds the position: first by its number on the device, then by
// what it holds alone, which a copy does, too. Null when none does, or with a reason when one that may hold it cannot be
// read.
std::shared_ptr<CLogFile> FindPosition(const std::string& strLog, const FollowPosition& position,
                                       std::string& strError);

// A copy of what was read of the log up to the position, among the rotated files. Null when there is none.
std::shared_ptr<CLogFile> FindCopy(const std::string& strLog, const FollowPosition& position);

// What goes on where a file of the log ended.
struct Successor {
  std::shared_ptr<CLogFile> pFile;         // null: nothing yet, or
  std::string strError;                    // why it cannot be read
  std::vector<std::string> vecUnreadable;  // compressed files that were passed over
};
Successor FindSuccessor(const std::string& strLog, const CLogFile& current);
// The same for a file that is gone, by when it was last known to be read.
Successor FindSuccessor(const std::string& strLog, const timespec& time);

#endif  // QMLOGCACHE_TOOLS_QMSEND_FOLLOW_ROTATED_FILES_H_
