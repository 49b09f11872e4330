// Reads the values of configuration keys. Every function answers an empty text for success, or what is wrong with the
// value in words that name it.
#ifndef QMLOGCACHE_HOST_CONFIG_CONFIG_VALUES_H_
#define QMLOGCACHE_HOST_CONFIG_CONFIG_VALUES_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A decimal number between the two bounds, both allowed.
[[nodiscard]] std::string ReadNumber(std::string_view svValue, uint64_t u64Least, uint64_t u64Most, uint64_t& u64Read);
// A number of bytes, which K, M or G may follow (powers of 1024).
[[nodiscard]] std::string ReadSize(std::string_view svValue, uint64_t u64Least, uint64_t u64Most, uint64_t& u64Read);
// yes or no, true or false, on or off, 1 or 0.
[[nodiscard]] std::string ReadSwitch(std::string_view svValue, bool& bRead);
// One of the words of vecWords, whose index is given.
[[nodiscard]] std::string ReadWord(std::string_view svValue, const std::vector<std::string>& vecWords, size_t& uRead);
// Numbers from 1 to 6, comma-separated, as a mask with bit n for level n.
[[nodiscard]] std::string ReadLevels(std::string_view svValue, unsigned int& uRead);
// Names or numbers of users, comma-separated; an empty value is nobody.
[[nodiscard]] std::string ReadUsers(std::string_view svValue, std::vector<uid_t>& vecRead);
// A path; one that is not absolute is taken from strPrefix.
[[nodiscard]] std::string ReadPath(std::string_view svValue, const std::string& strPrefix, std::string& strRead);
// A component's GUID in either case, made upper-case.
[[nodiscard]] std::string ReadGuid(std::string_view svValue, std::string& strRead);

// An address of this machine's own loopback and a port: 127.0.0.1:9478 or [::1]:9478.
[[nodiscard]] std::string ReadLoopbackAddress(std::string_view svValue, std::string& strAddress, uint16_t& uPort);

// The word of vecWords that svWord was most likely meant to be; empty when none is near.
std::string NearestWord(std::string_view svWord, const std::vector<std::string>& vecWords);

#endif  // QMLOGCACHE_HOST_CONFIG_CONFIG_VALUES_H_
