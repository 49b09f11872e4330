// The directories that belong to an installation, beside bin/ and lib/. Plug-ins find theirs from the directory of the
// running program, whatever the host's own configuration says.
#ifndef QMLOGCACHE_HOST_INSTALL_TREE_H_
#define QMLOGCACHE_HOST_INSTALL_TREE_H_

#include <string>

// Makes etc/qmlogcache, data and log under the prefix where they are missing; what is there keeps its mode. One that
// cannot be made does not keep the others from being made. Empty, or what could not be made and why, in one line.
[[nodiscard]] std::string MakeInstallTree(const std::string& strPrefix);

#endif  // QMLOGCACHE_HOST_INSTALL_TREE_H_
