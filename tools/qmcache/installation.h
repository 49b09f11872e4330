// Where an installation keeps what this program looks at, found as the host and the component find it.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_INSTALLATION_H_
#define QMLOGCACHE_TOOLS_QMCACHE_INSTALLATION_H_

#include <string>

struct Installation {
  std::string strCacheDirectory;  // without a trailing slash
  std::string strDataDirectory;   // of the host, with its lock
  std::string strLogDirectory;
};

// The installation of the program in strProgramDirectory: the component's configuration is
// ../etc/qmlogcache/qmlogcache.conf from there, the host's strHostConfig, or ../etc/qmhost.conf when that is empty.
// Where a file or a key is missing the default holds.
[[nodiscard]] Installation FindInstallation(const std::string& strProgramDirectory, const std::string& strHostConfig);

// The cache directory of a component that runs in a program of that directory.
[[nodiscard]] std::string FindCacheDirectory(const std::string& strProgramDirectory);

// The directory of this program. Throws std::system_error.
[[nodiscard]] std::string OwnDirectory();

#endif  // QMLOGCACHE_TOOLS_QMCACHE_INSTALLATION_H_
