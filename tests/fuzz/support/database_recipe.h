// Builds database files from a fuzzer's choices, since random bytes seldom get past a database's header: the cache
// files' own table or another schema under its name, rows of every storage class, a write-ahead log with valid
// checksums, and then a few bytes of damage.
#ifndef QMLOGCACHE_TESTS_FUZZ_SUPPORT_DATABASE_RECIPE_H_
#define QMLOGCACHE_TESTS_FUZZ_SUPPORT_DATABASE_RECIPE_H_

#include <fuzzer/FuzzedDataProvider.h>

#include <string>

struct DatabaseBytes {
  std::string strFile;
  std::string strLog;  // empty: none
};

DatabaseBytes CookDatabase(FuzzedDataProvider& input);

#endif  // QMLOGCACHE_TESTS_FUZZ_SUPPORT_DATABASE_RECIPE_H_
