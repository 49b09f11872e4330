// Fixture for tests of the store with its cache files.
#ifndef QMLOGCACHE_TESTS_UNIT_STORE_STORE_FIXTURE_H_
#define QMLOGCACHE_TESTS_UNIT_STORE_STORE_FIXTURE_H_

#include <sqlite3.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/cache_files.h"
#include "tests/support/manager_fixture.h"

inline constexpr char kOtherSender[] = "FEDCBA98-7654-3210-FEDC-BA9876543210";

using DataIds = std::vector<unsigned long long>;

// A store on the test's own cache directory. Open makes it; opening again is a restart without a save.
class StoreTest : public ComponentTest {
 protected:
  // Every record is written at intake, unless the configuration's lines say something else.
  void Open(const std::string& strConfig = "") {
    m_pData.reset();
    WriteConfig(strConfig);
    m_pData = std::make_unique<CLogCacheData>();
    ASSERT_TRUE(m_pData->InitCacheData());
    CLogCapture::Reset();
  }
  CLogCacheData& Data() { return *m_pData; }
  CLogCacheDataPeer Peer() { return CLogCacheDataPeer(*m_pData); }

  // Files a record to be saved, of normal priority.
  int Add(unsigned long long u64DataId, const char* pszSender = kSenderText, const char* pszText = "text") {
    return Data().AddDataAction(0, u64DataId, 1, 1, 1, pszSender, "prod", "comb", pszText);
  }
  // Files records that stay unwritten, as flow 1 does; the flow flag is as configured afterwards.
  void AddPending(unsigned long long u64First, unsigned long long u64Last, const char* pszSender = kSenderText) {
    const uint32_t dwFlow = Peer().DataFlowFlag();
    Peer().SetDataFlowFlag(1);
    for (unsigned long long u64DataId = u64First; u64DataId <= u64Last; ++u64DataId) {
      ASSERT_EQ(0, Add(u64DataId, pszSender));
    }
    Peer().SetDataFlowFlag(dwFlow);
  }
  // The save status of a record, -1 for none.
  int Status(unsigned long long u64DataId) {
    const _LogExecData* pExecData = Peer().Find(u64DataId);
    return pExecData == nullptr ? -1 : pExecData->iDataSaveStatus.Load();
  }
  // Data ids of a sender's rows; none without a file.
  DataIds Rows(const std::string& strSender = kSenderText) const {
    return Exists(CacheFile(strSender)) ? IdsOf(CacheFile(strSender)) : DataIds();
  }
  // Data id of the next record, 0 for none.
  unsigned long long Take() {
    const ExecDataHold hold = Data().GetExecData();
    return hold == nullptr ? 0 : hold->u64DataId;
  }
  static size_t Inserts() { return CStorageFaults::Statements("insert").size(); }

  std::unique_ptr<CLogCacheData> m_pData;
};

inline DataIds IdRange(unsigned long long u64First, unsigned long long u64Last) {
  DataIds vecIds;
  for (unsigned long long u64DataId = u64First; u64DataId <= u64Last; ++u64DataId) {
    vecIds.push_back(u64DataId);
  }
  return vecIds;
}

// While it lives, an insert whose text holds svMarker fails, and so does the look at its file that follows: the write
// has an error and the file no evidence of damage.
class CFailingInserts {
 public:
  explicit CFailingInserts(std::string_view svMarker = "") {
    CStorageFaults::SetExecHook([this, strMarker = std::string(svMarker)](std::string_view svSql) {
      if (svSql.find("insert into") != std::string_view::npos && svSql.find(strMarker) != std::string_view::npos) {
        ++m_iFailed;
        return SQLITE_IOERR;
      }
      if (m_iFailed >= 2 && svSql.starts_with("PRAGMA")) {
        m_iFailed = 0;
        return SQLITE_CANTOPEN;
      }
      return SQLITE_OK;
    });
  }
  ~CFailingInserts() { CStorageFaults::SetExecHook(nullptr); }
  CFailingInserts(const CFailingInserts&) = delete;
  CFailingInserts& operator=(const CFailingInserts&) = delete;

 private:
  std::atomic<int> m_iFailed{0};  // in a row
};

#endif  // QMLOGCACHE_TESTS_UNIT_STORE_STORE_FIXTURE_H_
