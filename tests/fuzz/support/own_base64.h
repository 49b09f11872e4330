// Base64 read a second time, by a reader that shares nothing with the code under test.
#ifndef QMLOGCACHE_TESTS_FUZZ_SUPPORT_OWN_BASE64_H_
#define QMLOGCACHE_TESTS_FUZZ_SUPPORT_OWN_BASE64_H_

#include <optional>
#include <string>
#include <string_view>

// The bytes; none for every text but the one that stands for them: padded, without white space, no stray bits.
std::optional<std::string> ReadBase64(std::string_view svText);

#endif  // QMLOGCACHE_TESTS_FUZZ_SUPPORT_OWN_BASE64_H_
