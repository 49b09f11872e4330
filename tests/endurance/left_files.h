// What a killed process has left in its cache directory, as another program sees it: through SQLite and zlib alone, and on
// a copy, so that the next life of the component finds everything as it was left.
#ifndef QMLOGCACHE_TESTS_ENDURANCE_LEFT_FILES_H_
#define QMLOGCACHE_TESTS_ENDURANCE_LEFT_FILES_H_

#include <set>
#include <string>
#include <vector>

struct LeftFiles {
  std::set<std::string> setInFiles;      // keys of the records in sound cache files
  std::set<std::string> setInBackups;    // and in backups, as far as those can be read
  std::vector<std::string> vecProblems;  // "FILE: what its integrity check says"; an empty file is none
  size_t uBackups = 0;
  std::vector<std::string> vecStrays;  // entries that are no cache file, no side file and no backup
};

// strScratch: a directory that is emptied first.
LeftFiles LookAt(const std::string& strDirectory, const std::string& strScratch);

// Brings a file's log into it and removes the log. No life is under way.
void FoldLog(const std::string& strFile);
// Damages the text of the table in the file's schema: no connection gets past it, and no record is hurt. A backup of such
// a file is read as if it had not been damaged.
void DamageSchema(const std::string& strFile);
// The same with the file's header: SQLite takes it for no database.
void DamageHeader(const std::string& strFile);
// Runs a statement on a file.
void ExecuteOn(const std::string& strFile, const std::string& strSql);

#endif  // QMLOGCACHE_TESTS_ENDURANCE_LEFT_FILES_H_
