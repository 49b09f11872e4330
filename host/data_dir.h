// The host's data directory: made when missing, held by one host at a time, and the second of the last start.
#ifndef QMLOGCACHE_HOST_DATA_DIR_H_
#define QMLOGCACHE_HOST_DATA_DIR_H_

#include <sys/types.h>

#include <string>

// Makes a directory and the ones above it; those that are made get the mode, whatever the umask. False with a reason.
[[nodiscard]] bool MakeDirectories(const std::string& strPath, mode_t mode, std::string& strError);

class CDataDir {
 public:
  explicit CDataDir(std::string strPath);
  ~CDataDir();  // gives the directory up
  CDataDir(const CDataDir&) = delete;
  CDataDir& operator=(const CDataDir&) = delete;

  // Takes the directory for this process, which writes its number into qmhost.lock. False with a reason that names the
  // process that has it.
  [[nodiscard]] bool Lock(std::string& strError);
  // Returns in a later second than the one that the last start wrote down: a component that numbers its records from
  // its start second would otherwise give numbers a second time. A clock that was set back by more than a few seconds
  // is not waited for; false then.
  bool AwaitNewSecond() const;
  // Writes down the present second, durably; a later one that is written down already stays.
  [[nodiscard]] bool NoteStart(std::string& strError) const;

 private:
  const std::string m_strPath;
  int m_iLock = -1;
};

#endif  // QMLOGCACHE_HOST_DATA_DIR_H_
