// The bearer token: read from a file, again whenever the file has changed. It is never logged.
#ifndef QMLOGCACHE_HOST_LINK_TOKEN_FILE_H_
#define QMLOGCACHE_HOST_LINK_TOKEN_FILE_H_

#include <sys/stat.h>

#include <string>

// Not for several threads at a time.
class CTokenFile {
 public:
  // An empty path: no token is used.
  explicit CTokenFile(std::string strPath) : m_strPath(std::move(strPath)) {}
  CTokenFile(const CTokenFile&) = delete;
  CTokenFile& operator=(const CTokenFile&) = delete;

  // The token as of now, empty without a path. Nothing (null) with a reason when the file cannot be used: it must be a
  // regular file that others can neither read nor, as the group, write, and hold one line of at most 8 KiB of visible
  // ASCII characters. Valid until the next call. Throws std::bad_alloc.
  const std::string* Current(std::string& strReason);
  // The next call reads the file whether it has changed or not.
  void Forget() { m_bRead = false; }

 private:
  bool Read(int iFile, std::string& strReason);

  const std::string m_strPath;
  std::string m_strToken;
  bool m_bRead = false;
  struct stat m_readStatus {};  // of the file when it was read
};

#endif  // QMLOGCACHE_HOST_LINK_TOKEN_FILE_H_
