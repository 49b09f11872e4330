// Fixture for the layers that keep data on disk: a directory of the test's own, the log captured, no faults.
#ifndef QMLOGCACHE_TESTS_UNIT_DB_STORAGE_FIXTURE_H_
#define QMLOGCACHE_TESTS_UNIT_DB_STORAGE_FIXTURE_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "db/log_cache_db.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "tests/support/cache_files.h"
#include "tests/support/log_capture.h"
#include "tests/support/storage_faults.h"
#include "tests/unit/platform/temporary_directory.h"

class StorageTest : public ::testing::Test {
 protected:
  StorageTest() {
    CStorageFaults::Reset();
    CLogCapture::Reset();
    g_hLog = LogInit(kMainChannel);
  }
  ~StorageTest() override {
    CStorageFaults::Reset();
    CLogCapture::Reset();
    g_hLog = nullptr;
  }

  std::string Path(const std::string& strName) const { return m_directory.Path(strName); }

  CTemporaryDirectory m_directory;
};

// No descriptor can be opened while it lives.
class CNoDescriptors {
 public:
  CNoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &m_old);
    const rlimit none{0, m_old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~CNoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_old); }
  CNoDescriptors(const CNoDescriptors&) = delete;
  CNoDescriptors& operator=(const CNoDescriptors&) = delete;

 private:
  rlimit m_old{};
};

inline std::string BytesOf(const std::string& strFile) {
  std::ifstream stream(strFile, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline mode_t ModeOf(const std::string& strFile) {
  struct stat info {};
  EXPECT_EQ(0, lstat(strFile.c_str(), &info)) << strFile;
  return info.st_mode & 07777;
}

// Bytes that are no database, longer than a header.
inline std::string NoDatabase() {
  std::string strBytes;
  for (unsigned int i = 0; i < 8192; ++i) {
    strBytes += static_cast<char>(i * 7 + i / 256 + 1);
  }
  return strBytes;
}

#endif  // QMLOGCACHE_TESTS_UNIT_DB_STORAGE_FIXTURE_H_
