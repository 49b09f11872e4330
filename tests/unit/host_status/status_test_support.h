// Snapshots, times and directories for the tests of the status.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_STATUS_STATUS_TEST_SUPPORT_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_STATUS_STATUS_TEST_SUPPORT_H_

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "host/status/status_snapshot.h"

inline constexpr std::chrono::seconds kMinute{60};

inline StatusTime At(std::chrono::seconds since) {
  return StatusTime(std::chrono::hours(1000)) + since;
}

// A host whose link went down three minutes ago.
inline StatusSnapshot OutageSnapshot() {
  StatusSnapshot snapshot;
  snapshot.strVersion = "1.2.3";
  snapshot.time = std::chrono::system_clock::time_point(std::chrono::seconds(1800000000));
  snapshot.started = snapshot.time - std::chrono::hours(2);
  snapshot.linkStateAge = 3 * kMinute + std::chrono::seconds(4);
  snapshot.linkChanged = snapshot.time - snapshot.linkStateAge;
  snapshot.strLink = "file /records";
  snapshot.strDownReason = "cannot open /records";
  snapshot.intake.aAccepted = {1000, 900, 50, 4, 0};
  snapshot.intake.vecRefused = {{0xE0020001, 2}, {0xA0010014, 7}};
  snapshot.link.u64Received = 800;
  snapshot.link.u64Delivered = 740;
  snapshot.link.u64Rejected = 10;
  snapshot.link.u64Retried = 20;
  snapshot.link.u64Held = 30;
  snapshot.link.aDelivered = {340, 400, 0, 0, 0};
  snapshot.link.aRejected = {10, 0, 0, 0, 0};
  HeldRecords held;
  held.aOfRun = {650, 500, 50, 4, 0};
  held.u64OfRun = 1204;
  held.optEarlier = 0;
  held.optOldest = 3 * kMinute;
  snapshot.optHeld = held;
  snapshot.optRates = RecordRates{6.5, 0};
  snapshot.cacheSettings = {"/cache/", uint64_t{2} << 30, 524288000, true};
  snapshot.cache.bReadable = true;
  snapshot.cache.u64Bytes = uint64_t{38} << 20;
  snapshot.cache.uFiles = 2;
  snapshot.cache.vecFiles = {{"AAAA", 30000000, 1, std::nullopt, "AAAA.db"}, {"BBBB", 4096, 1, 12, "BBBB.db"}};
  return snapshot;
}

// A directory of its own, removed with all it holds.
class CStatusDirectory {
 public:
  CStatusDirectory() {
    std::string strPath = (std::filesystem::temp_directory_path() / "qmstatus-XXXXXX").string();
    m_Path = mkdtemp(strPath.data());
  }
  ~CStatusDirectory() { std::filesystem::remove_all(m_Path); }
  CStatusDirectory(const CStatusDirectory&) = delete;
  CStatusDirectory& operator=(const CStatusDirectory&) = delete;

  std::string Path(const std::string& strName = "") const { return m_Path.string() + "/" + strName; }
  void Write(const std::string& strName, size_t uBytes) const { WriteText(strName, std::string(uBytes, 'x')); }
  void WriteText(const std::string& strName, const std::string& strText) const {
    std::filesystem::create_directories(std::filesystem::path(Path(strName)).parent_path());
    std::ofstream(Path(strName), std::ios::binary) << strText;
  }

 private:
  std::filesystem::path m_Path;
};

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_STATUS_STATUS_TEST_SUPPORT_H_
