// What is put to the test: the component's cache files, or plain SQLite for comparison. Files are named by number.
#ifndef QMLOGCACHE_POWER_CUT_RECORD_STORES_H_
#define QMLOGCACHE_POWER_CUT_RECORD_STORES_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/power_cut/record_book.h"

inline constexpr int kFiles = 4;

class IRecordStore {
 public:
  virtual ~IRecordStore() = default;
  // All are true on success.
  [[nodiscard]] virtual bool Insert(int iFile, const Row& row, bool bCover) = 0;
  [[nodiscard]] virtual bool Delete(int iFile, uint64_t u64DataId) = 0;
  [[nodiscard]] virtual bool Batch(int iFile, const std::vector<Row>& vecRows) = 0;
  [[nodiscard]] virtual bool Compact(int iFile) = 0;
  // Replaces the rows of all files.
  [[nodiscard]] virtual bool Load(std::vector<Rows>& vecRows) = 0;
};

// Makes a store for a process that has just started. strDirectory ends in no slash.
using StoreFactory = std::function<std::unique_ptr<IRecordStore>(const std::string& strDirectory)>;

// Cache files with the storage sync 1 or 2.
StoreFactory ComponentStore(int iStorageSync);
// A connection for each call, set up by nothing but the pragmas.
StoreFactory PlainStore(const std::string& strPragmas);

// The database's name within the directory.
std::string DatabaseName(int iFile);

#endif  // QMLOGCACHE_POWER_CUT_RECORD_STORES_H_
