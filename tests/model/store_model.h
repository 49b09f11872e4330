// The record store and its files as a simple machine: what every operation answers, and what is there after it.
//
// It knows no time but the one it is told, and no disk. Two outcomes are permitted only where a damaged file may fail
// to open or fail to run a statement; there it gives both codes.
#ifndef QMLOGCACHE_TESTS_MODEL_STORE_MODEL_H_
#define QMLOGCACHE_TESTS_MODEL_STORE_MODEL_H_

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/model/command.h"
#include "tests/model/file_model.h"

// What a record is made of.
struct Contents {
  int iPriv = 0;
  int iMsgType = 0;
  std::string strSender;
  std::string strProduct;
  std::string strCombo;
  std::string strData;
};

struct ModelRecord {
  Contents contents;
  int iSaveStatus = 0;
  bool bMarked = false;
  bool bQueued = false;
  uint32_t uResends = 0;
  uint32_t uStartTime = 0;
  unsigned long long u64Instance = 0;  // tells a record from a later one with its id
};

class CStoreModel {
 public:
  explicit CStoreModel(uint32_t uNow) : m_uNow(uNow) {}

  // --- Operations of the store ---
  int Intake(unsigned long long u64DataId, const Contents& contents, int iSaveStatus, bool bForceSave);
  // The id taken, and what the deletion answers when it was marked.
  std::optional<unsigned long long> Take(std::optional<Codes>& deleted);
  Codes Delete(unsigned long long u64DataId);
  int QueueAgain(unsigned long long u64DataId);
  void Save();
  // vecFiles: senders' names in the order in which the directory lists their files.
  void Load(const std::vector<std::string>& vecFiles);
  void Sweep();
  // A new store on the same files.
  void Restart();

  // --- Surroundings ---
  void SetTime(uint32_t uNow) { m_uNow = uNow; }
  void SetFailure(Failure failure) { m_failure = failure; }
  void Configure(Setting setting, int iValue) { m_aSettings[static_cast<size_t>(setting)] = iValue; }
  int Configured(Setting setting) const { return m_aSettings[static_cast<size_t>(setting)]; }
  CFileModel& File(const std::string& strSender) { return m_mapFiles[strSender]; }

  // --- What is there ---
  const std::map<unsigned long long, ModelRecord>& Records() const { return m_mapRecords; }
  const std::map<std::string, CFileModel>& Files() const { return m_mapFiles; }
  size_t QueueCount(int iQueue) const { return m_aQueues[static_cast<size_t>(iQueue)].size(); }
  size_t FileObjects() const { return m_setFileObjects.size(); }
  // Warnings of the store since the last call, in order.
  std::vector<std::string> TakeWarnings() { return std::exchange(m_vecWarnings, {}); }

 private:
  using RecordMap = std::map<unsigned long long, ModelRecord>;

  int CheckSpace(const CFileModel& file);
  int CheckCacheSize();
  int Write(unsigned long long u64DataId, ModelRecord& record);
  bool Queue(unsigned long long u64DataId, ModelRecord& record);
  int QueueAgain(RecordMap::iterator it);
  void MarkOldest();
  void WarnOfWrite(const char* pszWho, int iRet, unsigned long long u64DataId, const ModelRecord& record);

  struct Entry {
    unsigned long long u64DataId = 0;
    unsigned long long u64Instance = 0;
  };

  uint32_t m_uNow;
  Failure m_failure = kNothing;
  std::array<int, kSettings> m_aSettings{0, 500000, 100000, 0, kNoLimit, kNoLimit, 1};
  RecordMap m_mapRecords;
  std::array<std::deque<Entry>, 4> m_aQueues;
  std::map<std::string, CFileModel> m_mapFiles;
  std::set<std::string> m_setFileObjects;
  unsigned long long m_u64Instances = 0;
  uint32_t m_uLastCheck = 0;
  int m_iCheckRet = 0;
  std::vector<std::string> m_vecWarnings;
};

#endif  // QMLOGCACHE_TESTS_MODEL_STORE_MODEL_H_
