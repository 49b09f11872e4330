// What the tests of cache files start from: an installation without a configuration of its own.
#ifndef QMLOGCACHE_TESTS_COMPONENT_CACHE_FILE_FIXTURE_H_
#define QMLOGCACHE_TESTS_COMPONENT_CACHE_FILE_FIXTURE_H_

#include "cache_files.h"
#include "component_fixture.h"
#include "replaced_disk.h"

// A second producer, and its id as the component must write it.
inline constexpr GUID kOtherProducer = {0xfeed0001, 0x00aa, 0x0b00, {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef}};
inline constexpr char kOtherProducerText[] = "FEED0001-00AA-0B00-0123-456789ABCDEF";

inline constexpr time_t kFirstLife = 1700000000;

class CCacheFileTest : public CComponentTest {
 protected:
  CCacheFileTest() {
    CReplacedDisk::Reset();
    m_prefix.RemoveConfiguration();
    m_clock.Freeze(kFirstLife);
  }
  ~CCacheFileTest() override { CReplacedDisk::Reset(); }

  // Ends the life that is under way and begins another, a second later. Connected.
  void BeginNextLife() {
    m_host.EndLife();
    m_clock.Advance(1);
    BeginConnectedLife();
  }
  // Waits until the cache directory has been loaded that often in all.
  [[nodiscard]] bool WaitForLoads(size_t uCount) { return m_log.WaitForLines(kLoaded, uCount); }

  std::vector<CacheRow> Rows(const std::string& strSender = kProducerText) {
    return ReadCacheFile(m_prefix.CacheFile(strSender));
  }
  std::vector<uint64_t> RowIds(const std::string& strSender = kProducerText) {
    std::vector<uint64_t> vecIds;
    for (const CacheRow& row : Rows(strSender)) {
      vecIds.push_back(row.u64DataId);
    }
    return vecIds;
  }
  // The id of a life's records, counted from 1.
  static uint64_t IdOf(uint32_t uSequence, time_t tLife = kFirstLife) {
    return (static_cast<uint64_t>(tLife) << 32) | uSequence;
  }
  std::vector<std::string> SentTexts() {
    std::vector<std::string> vecTexts;
    for (const SentMessage& sent : m_router.Sent()) {
      vecTexts.push_back(sent.strText);
    }
    return vecTexts;
  }
  // The line is there once, with that level, on the main channel.
  void ExpectLine(int iLevel, const std::string& strText) {
    size_t uCount = 0;
    for (const LogLine& line : m_log.Lines(strText)) {
      if (line.strText == strText) {
        ++uCount;
        EXPECT_EQ(line.iLevel, iLevel) << strText;
        EXPECT_EQ(line.strChannel, kMainChannel) << strText;
      }
    }
    EXPECT_EQ(uCount, 1u) << strText;
  }

  static constexpr char kLoaded[] = "qmlogcache CLogCacheData::LoadExecData LowQueueData[";
  static constexpr char kSaveBegin[] = "qmlogcache CLogCacheMgr::SaveCacheToDb Begin";
  static constexpr char kSaveEnd[] = "qmlogcache CLogCacheMgr::SaveCacheToDb End bStatus[1]";
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_CACHE_FILE_FIXTURE_H_
