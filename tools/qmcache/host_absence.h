// Makes sure that nobody works on a cache directory while records are written back to it.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_HOST_ABSENCE_H_
#define QMLOGCACHE_TOOLS_QMCACHE_HOST_ABSENCE_H_

#include <memory>
#include <string>

#include "host/data_dir.h"
#include "tools/qmcache/installation.h"

// Holds the host's data directory, so that no host of it starts, for its own lifetime.
class CHostAbsence {
 public:
  // False with a reason when a host has the data directory, when some process has the component loaded and this cache
  // directory for its own, or when the directory belongs to another user: files that this one makes there would be out
  // of the host's reach.
  [[nodiscard]] bool Ensure(const Installation& installation, std::string& strError);

 private:
  std::unique_ptr<CDataDir> m_pDataDir;
};

#endif  // QMLOGCACHE_TOOLS_QMCACHE_HOST_ABSENCE_H_
