// Fixtures for tests of the component: open log channels, a fake clock, an installation of the test's own, and for
// ManagerTest the manager with a context.
#ifndef QMLOGCACHE_TESTS_SUPPORT_MANAGER_FIXTURE_H_
#define QMLOGCACHE_TESTS_SUPPORT_MANAGER_FIXTURE_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "manager/log_cache_mgr.h"
#include "platform/log_channels.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_context.h"
#include "tests/support/log_capture.h"
#include "tests/support/peers.h"
#include "tests/support/platform_faults.h"
#include "tests/support/storage_faults.h"
#include "tests/unit/platform/temporary_directory.h"

// The fake time at which every test begins: 0x6553f100.
inline constexpr time_t kTestStart = 1700000000;
// The first data id that a manager made at kTestStart gives.
inline constexpr unsigned long long kFirstDataId = 0x6553f10000000001ULL;
// The sender of the tests' records.
inline constexpr char kSenderText[] = "01234567-89AB-CDEF-0123-456789ABCDEF";
inline constexpr GUID kSenderGuid = {0x01234567, 0x89AB, 0xCDEF, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

// Configuration of a component that keeps its records in memory.
inline constexpr char kMemoryOnlyConfig[] = "dataflowflag = 2\n";

// Open channels, a fake clock, waits for events cut short, and an installation in a directory of the test's own, on a
// file system with plenty of room: bin/, etc/qmlogcache/ and data/. It is configured for memory only, unless the test
// writes something else. No manager before or after.
class ComponentTest : public ::testing::Test {
 protected:
  ComponentTest() {
    CStorageFaults::Reset();
    for (const char* pszName : {"bin", "etc/qmlogcache", "data"}) {
      std::filesystem::create_directories(m_directory.Path(pszName));
    }
    CStorageFaults::SetModulePath(m_directory.Path("bin"));
    SetFreeSpace(uint64_t{1} << 40);
    WriteConfig(kMemoryOnlyConfig);
    CPlatformFaults::Reset();
    CPlatformFaults::ShortenWaits(1);
    CLogCapture::Reset();
    g_hLog = LogInit(kMainChannel);
    g_hLogError = LogInit(kErrorChannel);
  }
  ~ComponentTest() override {
    CLogCacheMgr::Close();
    CPlatformFaults::Reset();
    CStorageFaults::Reset();
    g_hLog = nullptr;
    g_hLogError = nullptr;
  }

  // Hooks may refer to the test's own variables: they go before the fixture's members do.
  void TearDown() override {
    CLogCapture::SetHook(nullptr);
    CPlatformFaults::Reset();
    CPlatformFaults::ShortenWaits(1);
    CFakeClock::SetSleepHook(nullptr);
    CFakeClock::SetMicroSleepHook(nullptr);
    CStorageFaults::SetExecHook(nullptr);
    CStorageFaults::SetEncodeHook(nullptr);
    SetFreeSpace(uint64_t{1} << 40);
  }

  // The lines of the configuration's section; read by the next InitCacheData.
  void WriteConfig(const std::string& strLines) const {
    m_directory.Write("etc/qmlogcache/qmlogcache.conf", "[logcache]\n" + strLines);
  }
  // Free space, in bytes, of the file system that the cache lies on.
  static void SetFreeSpace(uint64_t u64Bytes) {
    CStorageFaults::SetStatvfs([u64Bytes](const char*, struct statvfs* pStat) {
      *pStat = {};
      pStat->f_frsize = 1;
      pStat->f_bfree = u64Bytes;
      return 0;
    });
  }
  // The cache directory as the component spells it.
  std::string CachePath() const { return m_directory.Path("bin/../data/qmlogcache/"); }
  // Path of a sender's cache file.
  std::string CacheFile(const std::string& strSender = kSenderText) const { return CachePath() + strSender + ".db"; }
  // The line that tells the configuration, its counts and flags given and everything else left at its default.
  LogLine ConfigLine(uint32_t dwFlow, uint32_t dwCount = 500000, uint32_t dwLocalCount = 100000,
                     uint32_t dwCover = 0) const {
    return {kMainChannel, 2,
            "qmlogcache CLogCacheMon::InitLogCacheMon dwDataFlowFlag[" + std::to_string(dwFlow) +
                "] dwDataCountLimit[" + std::to_string(dwCount) + "] dwLocalDataCountLimit[" +
                std::to_string(dwLocalCount) + "] dwDataCoverFlag[" + std::to_string(dwCover) +
                "] u64LogCacheSize[524288000] u64DiskFreeSpace[524288000] u64LogCacheTotalSize[2147483648] "
                "strCfgLogCachePath[../data/qmlogcache/] strLogCachePath[" +
                CachePath() + "]"};
  }

  CTemporaryDirectory m_directory;
  CFakeClock m_clock{kTestStart};
};

class ManagerTest : public ComponentTest {
 protected:
  explicit ManagerTest(const std::string& strConfig = kMemoryOnlyConfig)
      : m_manager(*CLogCacheMgr::Instance()), m_peer(m_manager), m_data(m_peer.Data()), m_dataPeer(m_data) {
    WriteConfig(strConfig);
    EXPECT_TRUE(m_manager.Init());
    m_manager.SetCtx(static_cast<IComponentContext*>(&m_context));
    CLogCapture::Reset();
  }

  ~ManagerTest() override {
    if (CLogCacheMgrPeer::Current() == &m_manager) {
      m_context.Release();
      if (m_peer.WorkThreadId() != 0 || m_peer.TimerThreadId() != 0) {
        m_manager.Stop();
      }
      CLogCacheMgr::Close();  // before the context goes
    }
  }

  // Files a record as a private EDR record of the tests' sender; gives its data id.
  unsigned long long AddRecord(int iPriv = 1, const char* pszData = "data") {
    EXPECT_EQ(0, m_manager.AddExecData(10101, iPriv, 1, 1, kSenderText, "prod", "combo", pszData));
    return (static_cast<unsigned long long>(m_peer.StartTime()) << 32) | m_peer.SequenceId();
  }
  // Files a record, takes it and sends it; gives its data id. It waits for its result then.
  unsigned long long SendRecord(int iPriv = 1, const char* pszData = "data") {
    const unsigned long long u64DataId = AddRecord(iPriv, pszData);
    const ExecDataHold hold = m_data.GetExecData();
    EXPECT_NE(nullptr, hold);
    if (hold != nullptr) {
      EXPECT_EQ(u64DataId, hold->u64DataId);
      EXPECT_EQ(1, m_manager.RunExecData(hold.get()));
    }
    return u64DataId;
  }

  CFakeContext m_context;  // outlives the manager's threads, not the manager
  CLogCacheMgr& m_manager;
  CLogCacheMgrPeer m_peer;
  CLogCacheData& m_data;
  CLogCacheDataPeer m_dataPeer;
};

#endif  // QMLOGCACHE_TESTS_SUPPORT_MANAGER_FIXTURE_H_
