// Reads one cache file beside whoever writes to it, and changes nothing, neither the file nor what lies beside it.
//
// - The file is opened for reading alone, through a VFS that makes and deletes nothing (read_only_vfs.h), and its
//   write-ahead log's index is mapped for reading alone. A file without a log is read as it stands, and read again when
//   a log has appeared by then. A file that can be read only after a repair (a log without an index, an interrupted
//   transaction) is copied, and the copy is read.
// - A read transaction lasts for one page of rows: it is over before the caller sees them, so that a slow reader of the
//   output keeps nobody's log from being shortened.
// - A busy file is waited for; no lock is held that a writer of a write-ahead log would have to wait for.
// - Nothing in the file's schema can act: untrusted schema, defensive mode, triggers and views off, and an authorizer
//   that lets statements read the one table and nothing else.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_CACHE_READER_H_
#define QMLOGCACHE_TOOLS_QMCACHE_CACHE_READER_H_

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/qmcache/cache_record.h"
#include "tools/qmcache/private_copy.h"

struct sqlite3;
struct sqlite3_stmt;

enum class FileState {
  Sound,       // as far as was seen
  Empty,       // a creation that was cut short: no rows
  Damaged,     // SQLite says so, or it is no cache file
  Unreadable,  // it could not be opened or read: rights, a lock, the disk, no regular file
};

// Throws Interruption, and what CPrivateCopy throws.
class CCacheReader {
 public:
  enum class Columns { All, KeyAndPriority };  // what of each row is read

  explicit CCacheReader(std::string strFile);
  ~CCacheReader();
  CCacheReader(const CCacheReader&) = delete;
  CCacheReader& operator=(const CCacheReader&) = delete;

  // Sound: rows can be read. Otherwise Reason tells why not.
  [[nodiscard]] FileState Open();
  // Replaces vecRows with the next rows in the order of their keys; none at the end. A row that cannot be read is passed
  // over and named in vecUnreadable. Anything but Sound ends the reading, with the rows before it in vecRows.
  [[nodiscard]] FileState Next(Columns columns, std::vector<StoredRow>& vecRows,
                               std::vector<std::string>& vecUnreadable);
  // One row alone: the next one. Otherwise as Next.
  [[nodiscard]] FileState NextRow(std::vector<StoredRow>& vecRows, std::vector<std::string>& vecUnreadable);
  // From the row with this key on, or the first behind it.
  void Seek(int64_t i64RowId);
  // The largest key that is not larger than i64RowId; false when there is none, or it cannot be read.
  [[nodiscard]] bool FindLast(int64_t i64RowId, int64_t& i64Found);
  // SQLite's own check of the whole file: what it has to say goes into vecProblems, nothing when it is sound.
  [[nodiscard]] FileState Check(std::vector<std::string>& vecProblems);

  const std::string& Reason() const { return m_strReason; }

 private:
  enum class Way { Shared, AsItStands, Copied };
  // How often it is tried while somebody writes.
  static constexpr int kTries = 20;

  FileState OpenOnce(bool& bAgain);
  FileState ChooseWay(Way& way, bool& bUsesLog);
  int OpenConnection(Way way);
  FileState ReadSchema(int& iResult);
  void Restrict();
  void Close();
  FileState NextRows(Columns columns, size_t uLimit, std::vector<StoredRow>& vecRows,
                     std::vector<std::string>& vecUnreadable);
  FileState ReadPage(Columns columns, size_t uLimit, std::vector<StoredRow>& vecRows,
                     std::vector<std::string>& vecUnreadable);
  FileState PassOver(std::vector<std::string>& vecUnreadable, int iResult);
  bool HasBeenWrittenTo() const;
  FileState Reopen();
  FileState CheckOnce(std::vector<std::string>& vecProblems);
  int Prepare(const char* pszSql, sqlite3_stmt** ppStmt);
  FileState Fail(int iResult, const char* pszWhat);

  const std::string m_strFile;
  sqlite3* m_pDb = nullptr;
  std::unique_ptr<CPrivateCopy> m_pCopy;
  Way m_way = Way::Shared;
  bool m_bUsesLog = false;
  struct stat m_look {};     // AsItStands: what the file was when it was opened
  int64_t m_i64Last = 0;     // key of the last row that was read
  bool m_bFromStart = true;  // none was
  bool m_bEnded = false;
  int m_iResult = 0;  // SQLite's, of the last failure
  std::string m_strReason;
};

#endif  // QMLOGCACHE_TOOLS_QMCACHE_CACHE_READER_H_
