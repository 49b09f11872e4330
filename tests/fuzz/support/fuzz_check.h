// A target's own assertion: a statement that does not hold ends the program as a crash does, so that the fuzzer keeps
// the input.
#ifndef QMLOGCACHE_TESTS_FUZZ_SUPPORT_FUZZ_CHECK_H_
#define QMLOGCACHE_TESTS_FUZZ_SUPPORT_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(statement)                                                        \
  do {                                                                               \
    if (!(statement)) {                                                              \
      fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #statement); \
      abort();                                                                       \
    }                                                                                \
  } while (false)

#endif  // QMLOGCACHE_TESTS_FUZZ_SUPPORT_FUZZ_CHECK_H_
