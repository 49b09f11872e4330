// A copy of a cache file in a temporary directory that only its owner can enter, for what must not be done to the file
// itself: bring a log in, undo an interrupted transaction.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_PRIVATE_COPY_H_
#define QMLOGCACHE_TOOLS_QMCACHE_PRIVATE_COPY_H_

#include <cstdint>
#include <string>

// Throws Interruption, std::system_error when the temporary directory (TMPDIR, else /var/tmp) cannot be written, and
// std::runtime_error when a copy would fill its file system but for a reserve: a twentieth of it, at most 1 GiB.
class CPrivateCopy {
 public:
  CPrivateCopy();
  ~CPrivateCopy();  // removes it
  CPrivateCopy(const CPrivateCopy&) = delete;
  CPrivateCopy& operator=(const CPrivateCopy&) = delete;

  // Copies the database, its log and its journal. False with a reason when one cannot be read, or when somebody went on
  // changing them while they were copied.
  [[nodiscard]] bool TakeWhole(const std::string& strFile, std::string& strError);
  // The same, but goes on over what the disk does not give: such blocks are zeros in the copy and counted. bChanged: it
  // was written to while it was copied, again and again, and the copy is of no one moment.
  [[nodiscard]] bool TakeWhatIsReadable(const std::string& strFile, uint64_t& u64LostBytes, bool& bChanged,
                                        std::string& strError);
  // The contents of a gzip file, as far as they can be unpacked; bCutShort tells that they end too early or are damaged.
  // False with a reason when nothing came out.
  [[nodiscard]] bool Unpack(const std::string& strFile, bool& bCutShort, std::string& strError);

  // Keeps the log of the copy as it is, for when SQLite has taken from it what it can. Where it is then; empty when there
  // is none.
  [[nodiscard]] std::string KeepLog(std::string& strError) const;

  // The copy of the database.
  const std::string& Path() const { return m_strPath; }

 private:
  void RemoveFiles() const;
  bool CopyWhatIsReadable(const std::string& strFile, uint64_t& u64LostBytes, std::string& strError) const;

  std::string m_strDirectory;
  std::string m_strPath;
};

// For reading. -1 with errno for whatever is no regular file: a link is not followed, a FIFO not waited for.
[[nodiscard]] int OpenRegularFile(const std::string& strPath);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_PRIVATE_COPY_H_
