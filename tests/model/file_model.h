// What a sender's cache file is expected to hold.
#ifndef QMLOGCACHE_TESTS_MODEL_FILE_MODEL_H_
#define QMLOGCACHE_TESTS_MODEL_FILE_MODEL_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/model/command.h"

// Results that are permitted; mostly one.
using Codes = std::set<int>;

struct Row {
  int iPriv = 0;
  int iMsgType = 0;
  int iDataType = 0;
  std::string strProduct;
  std::string strCombo;
  std::string strData;

  friend bool operator==(const Row&, const Row&) = default;
};

struct RowToWrite {
  unsigned long long u64DataId = 0;
  Row row;
};

class CFileModel {
 public:
  enum class State {
    Missing,
    Empty,    // zero bytes: a creation that was cut short
    OneByte,  // empty to SQLite
    Sound,
    NoTable,
    Damaged,
  };

  // --- What the component does, while failure is on ---
  int Add(const RowToWrite& row, bool bCover, Failure failure);
  int AddBatch(const std::vector<RowToWrite>& vecRows, Failure failure);
  Codes Delete(unsigned long long u64DataId, Failure failure);
  // The first uLimit rows in data id order; false when the file cannot be read.
  bool Read(size_t uLimit, Failure failure, std::vector<RowToWrite>& vecRows);

  // --- What others do ---
  // Whether that can be done to the file as it is.
  bool CanBeSpoilt(Spoiling spoiling) const;
  void Spoil(Spoiling spoiling);

  State GetState() const { return m_state; }
  const std::map<unsigned long long, Row>& Rows() const { return m_mapRows; }
  int Repairs() const { return m_iRepairs; }

 private:
  bool Open(Failure failure);
  int Insert(const std::vector<RowToWrite>& vecRows, int iDataType, bool bCover, Failure failure);
  int WriteWithRepair(const std::vector<RowToWrite>& vecRows, bool bCover, Failure failure);

  State m_state = State::Missing;
  std::map<unsigned long long, Row> m_mapRows;  // empty unless sound
  int m_iRepairs = 0;                           // each leaves a backup
};

#endif  // QMLOGCACHE_TESTS_MODEL_FILE_MODEL_H_
