// A file of lines that only grows: opening it safely, appending, taking a half-written end back.
//
// The file must be a regular one; a symbolic link is not followed, and nothing else at the path can make a call block.
// Nobody else is expected to append to it. It may be renamed (reopen then), truncated or removed at any time.
#ifndef QMLOGCACHE_HOST_LINK_APPEND_FILE_H_
#define QMLOGCACHE_HOST_LINK_APPEND_FILE_H_

#include <cstdint>
#include <string>
#include <string_view>

enum class OpenOutcome {
  Open,
  Unavailable,  // may work later: no such directory, no permission, no space
  Refused,      // what is at the path is no regular file
};

// Not for several threads at a time. Functions that return an int return 0 or an errno value.
class CAppendFile {
 public:
  CAppendFile() = default;
  ~CAppendFile() { Close(); }
  CAppendFile(const CAppendFile&) = delete;
  CAppendFile& operator=(const CAppendFile&) = delete;

  // Opens the file, mode 0600 when it is created. A last line without a line break, which a crash may leave, gets one:
  // what is in the file is never taken away, and never runs into the next line. bSyncDirectory: the file's name is on
  // disk as well on return.
  OpenOutcome Open(const std::string& strPath, bool bSyncDirectory, std::string& strReason) noexcept;
  void Close();
  bool IsOpen() const { return m_iFd >= 0; }
  // Whether the last Open completed a torn line.
  bool CompletedTornLine() const { return m_bCompletedTornLine; }

  // The file has no name any more, so that what is appended would be lost.
  bool IsRemoved() const;
  int GetSize(uint64_t& u64Size) const;
  // u64Written rises by what was written, also on failure.
  int Append(std::string_view svBytes, uint64_t& u64Written);
  int Sync();
  // Shortens the file to u64Size if it is still u64Expected bytes long; else leaves it.
  int CutBack(uint64_t u64Expected, uint64_t u64Size);
  // Makes room for that many bytes behind the end without changing the size; 0 also where the file system cannot tell.
  int ReserveRoom(uint64_t u64Bytes);

 private:
  OpenOutcome TryOpen(const std::string& strPath, bool bSyncDirectory, std::string& strReason);
  int CompleteTornLine(const std::string& strPath);

  int m_iFd = -1;
  bool m_bCompletedTornLine = false;
};

// "open /var/log/x: No such file or directory"; the empty text when there is no memory for it.
std::string DescribeError(const char* pszAction, const std::string& strPath, int iError) noexcept;

#endif  // QMLOGCACHE_HOST_LINK_APPEND_FILE_H_
