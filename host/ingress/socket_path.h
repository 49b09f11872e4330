// The file of a listening Unix socket: what may be in its place, its mode, its removal.
#ifndef QMLOGCACHE_HOST_INGRESS_SOCKET_PATH_H_
#define QMLOGCACHE_HOST_INGRESS_SOCKET_PATH_H_

#include <sys/types.h>

#include <string>

class CSocketPath {
 public:
  // Checks that a socket can be bound at the path, and removes a socket there that nobody listens on any more. A live
  // socket, any other kind of file, a symbolic link, a path too long for a socket address: false with a reason, and
  // nothing is touched.
  [[nodiscard]] bool Prepare(const std::string& strPath, std::string& strError);
  // After the bind: opens the socket to every user and remembers which file it is.
  [[nodiscard]] bool Adopt(std::string& strError);
  // Removes the file if it is still the adopted one.
  void Remove();

 private:
  std::string m_strPath;
  bool m_bAdopted = false;
  dev_t m_device = 0;
  ino_t m_inode = 0;
};

#endif  // QMLOGCACHE_HOST_INGRESS_SOCKET_PATH_H_
