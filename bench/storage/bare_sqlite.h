// SQLite as a careful programmer would use it for the same durability: a connection for each operation, with the
// settings of the component's own and nothing else of it.
//
// Shared with the component: the VFS that keeps directory syncs to logs whose name is not known to be durable
// (db/wal_vfs.h). Not done here: everything that guards against hostile or damaged files.
// Functions throw std::runtime_error when SQLite fails.
#ifndef QMLOGCACHE_BENCH_STORAGE_BARE_SQLITE_H_
#define QMLOGCACHE_BENCH_STORAGE_BARE_SQLITE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

enum class BareSync : int {
  Default = 0,  // SQLite as it comes: rollback journal, synchronous=FULL
  Normal = 1,   // write-ahead log as the component keeps it
  Full = 2,     // the same
};

struct BareRow {
  uint64_t u64DataId = 0;
  int iPriv = 0;
  int iMsgType = 0;
  int iDataType = 0;
  std::string strProduct;
  std::string strCombo;
  std::string strData;
};

class CBareFile {
 public:
  // Creates the file with its table; for Normal and Full it is in the write-ahead log's mode afterwards.
  CBareFile(std::string strPath, BareSync sync);
  // An existing file, which another made.
  static CBareFile Existing(std::string strPath, BareSync sync);

  // Each opens a connection, executes and closes it.
  void Insert(const BareRow& row) const;
  // uCount rows from pRows on, in one statement.
  void Insert(const BareRow* pRows, size_t uCount) const;
  void Delete(uint64_t u64DataId) const;
  void Vacuum() const;
  std::vector<BareRow> Select() const;

 private:
  CBareFile() = default;

  void Execute(const std::string& strSql) const;

  std::string m_strPath;
  BareSync m_sync = BareSync::Default;
};

// The sample records from uFirst on, as rows.
std::vector<BareRow> SampleRows(size_t uFirst, size_t uCount);

#endif  // QMLOGCACHE_BENCH_STORAGE_BARE_SQLITE_H_
