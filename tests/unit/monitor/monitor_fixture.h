// Fixture of the monitor's tests: a program directory of the test's own and access to the monitor's members.
#ifndef QMLOGCACHE_TESTS_UNIT_MONITOR_MONITOR_FIXTURE_H_
#define QMLOGCACHE_TESTS_UNIT_MONITOR_MONITOR_FIXTURE_H_

#include <string>

#include "monitor/log_cache_mon.h"
#include "tests/unit/db/storage_fixture.h"

class CLogCacheMonPeer {
 public:
  explicit CLogCacheMonPeer(CLogCacheMon& mon) : m_mon(mon) {}

  unsigned long long& DiskFreeSpace() { return m_mon.m_u64DiskFreeSpace; }
  unsigned long long& TotalSize() { return m_mon.m_u64LogCacheTotalSize; }
  unsigned long long& FileSize() { return m_mon.m_u64LogCacheSize; }
  uint32_t DataFlowFlag() const { return m_mon.m_dwDataFlowFlag; }
  uint32_t DataCountLimit() const { return m_mon.m_dwDataCountLimit; }
  uint32_t LocalDataCountLimit() const { return m_mon.m_dwLocalDataCountLimit; }
  uint32_t DataCoverFlag() const { return m_mon.m_dwDataCoverFlag; }
  CPString& CfgPath() { return m_mon.m_strCfgLogCachePath; }
  CPString& Path() { return m_mon.m_strLogCachePath; }
  unsigned long long Discarded() const QM_NO_THREAD_SAFETY_ANALYSIS { return m_mon.m_64LogCacheDiscardedRangeCount; }
  uint32_t LastCheckTime() const QM_NO_THREAD_SAFETY_ANALYSIS { return m_mon.m_dwLastCheckTime; }
  int CacheSizeRet() const QM_NO_THREAD_SAFETY_ANALYSIS { return m_mon.m_iCacheSizeRet; }

 private:
  CLogCacheMon& m_mon;
};

class MonitorTest : public StorageTest {
 protected:
  CLogCacheMon m_mon;
  CLogCacheMonPeer m_peer{m_mon};
};

#endif  // QMLOGCACHE_TESTS_UNIT_MONITOR_MONITOR_FIXTURE_H_
