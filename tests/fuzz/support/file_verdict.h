// What another SQLite connection makes of a cache file.
#ifndef QMLOGCACHE_TESTS_FUZZ_SUPPORT_FILE_VERDICT_H_
#define QMLOGCACHE_TESTS_FUZZ_SUPPORT_FILE_VERDICT_H_

#include <map>
#include <set>
#include <string>

struct Verdict {
  bool bSound = false;                         // the quick check's first row is "ok"
  bool bReadable = false;                      // logcache is a table whose rows could all be read
  bool bOwnTable = false;                      // and it is the component's, with nothing beside it
  bool bDecodable = true;                      // what claims to be encoded is
  std::map<std::string, std::string> mapRows;  // row by data id, as texts
  std::map<std::string, std::string> mapData;  // data by data id, decoded, up to its first zero byte
};

// Looks at a copy of the file and its side files, made in the existing directory strScratch.
Verdict Judge(const std::string& strFile, const std::string& strScratch);

// Rows that were there before are there now, but for those that may go.
void CheckKept(const Verdict& before, const Verdict& now, const std::set<std::string>& setMayGo);
// The data ids that an insert with cover may take away.
std::set<std::string> CoveredRows(const Verdict& verdict);

#endif  // QMLOGCACHE_TESTS_FUZZ_SUPPORT_FILE_VERDICT_H_
