// A file's bytes, read and written at once.
#ifndef QMLOGCACHE_POWER_CUT_WHOLE_FILE_H_
#define QMLOGCACHE_POWER_CUT_WHOLE_FILE_H_

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

inline std::string ReadAll(const std::string& strPath) {
  std::ifstream file(strPath, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void WriteAll(const std::string& strPath, std::string_view svBytes) {
  std::ofstream file(strPath, std::ios::binary);
  file.write(svBytes.data(), static_cast<std::streamsize>(svBytes.size()));
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + strPath);
  }
}

#endif  // QMLOGCACHE_POWER_CUT_WHOLE_FILE_H_
