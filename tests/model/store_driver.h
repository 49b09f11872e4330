// Runs commands on a real store and on the model, and compares the two after each.
#ifndef QMLOGCACHE_TESTS_MODEL_STORE_DRIVER_H_
#define QMLOGCACHE_TESTS_MODEL_STORE_DRIVER_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/log_cache_data.h"
#include "tests/model/command.h"
#include "tests/model/store_model.h"
#include "tests/support/fake_clock.h"
#include "tests/unit/platform/temporary_directory.h"

class CStoreDriver {
 public:
  CStoreDriver();
  ~CStoreDriver();
  CStoreDriver(const CStoreDriver&) = delete;
  CStoreDriver& operator=(const CStoreDriver&) = delete;

  // Throws Mismatch, which names the command.
  void Run(const Commands& commands);

 private:
  void Execute(const Command& command);
  void ExecuteOnStore(const Command& command);
  void IntakeOne(unsigned long long u64DataId, const Contents& contents, int iSaveStatus, int bForceSave);
  void TakeOne();
  void SettleOne(unsigned long long u64DataId, Outcome outcome);
  void ConfigureOne(Setting setting, int iValue);
  void SpoilOne(const std::string& strSender, Spoiling spoiling);

  unsigned long long NewId() { return m_vecIds.emplace_back(m_u64NextId++); }
  unsigned long long PickId(Pick pick, int iNumber) const;
  void StartStore();
  std::string FileOf(const std::string& strSender) const;
  // Senders in the order in which the directory lists their files.
  std::vector<std::string> ListedSenders() const;

  void Compare();
  void CompareRecord(unsigned long long u64DataId, const ModelRecord& record);
  void CompareFile(const std::string& strSender, const CFileModel& file);
  void CompareWarnings();

  CTemporaryDirectory m_directory;
  CFakeClock m_clock;
  CStoreModel m_model;
  std::unique_ptr<CLogCacheData> m_pStore;
  Failure m_failure = kNothing;
  unsigned long long m_u64NextId;
  std::vector<unsigned long long> m_vecIds;  // every id ever used
};

#endif  // QMLOGCACHE_TESTS_MODEL_STORE_DRIVER_H_
