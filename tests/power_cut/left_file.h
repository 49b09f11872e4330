// A database as plain SQLite finds it, and the backup of a damaged one.
#ifndef QMLOGCACHE_POWER_CUT_LEFT_FILE_H_
#define QMLOGCACHE_POWER_CUT_LEFT_FILE_H_

#include <string>

#include "tests/power_cut/record_book.h"

struct LeftFile {
  enum class State {
    Sound,      // also a missing or an empty one
    Tableless,  // sound, longer than zero bytes, without the table
    Damaged,
  };
  State state = State::Sound;
  std::string strProblem;
  Rows rows;
};

// Opens the file with the default VFS, which may write to it and its side files.
LeftFile ReadLeftFile(const std::string& strPath);
// Whether the newest backup of the database is there and holds the damaged file from its first byte to its last. Empty
// when it does, else what is wrong.
std::string BackupProblem(const std::string& strPath);

#endif  // QMLOGCACHE_POWER_CUT_LEFT_FILE_H_
