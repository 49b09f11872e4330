// An installation of the agent in a temporary directory: bin/, etc/qmlogcache/qmlogcache.conf, data/. The executable
// defines QmGetModuleFilePath, which names the bin directory of the prefix that lives; without one it fails.
//
// One prefix at a time. It outlives every life of the component that was begun in it.
#ifndef QMLOGCACHE_TESTS_COMPONENT_INSTALL_PREFIX_H_
#define QMLOGCACHE_TESTS_COMPONENT_INSTALL_PREFIX_H_

#include <string>

class CInstallPrefix {
 public:
  // Configured to keep records in memory only, so that a test that is not about files makes none.
  CInstallPrefix();
  // The installation of another process, at that root: it is left as it is, and stays.
  explicit CInstallPrefix(const std::string& strRoot);
  // Removes the directory with everything in it, if it is this object's own.
  ~CInstallPrefix();
  CInstallPrefix(const CInstallPrefix&) = delete;
  CInstallPrefix& operator=(const CInstallPrefix&) = delete;

  // Lines of the section "logcache", for lives that begin from now on.
  void Configure(const std::string& strKeys);
  void RemoveConfiguration();
  // Makes QmGetModuleFilePath fail with that errno; 0: it works again.
  void FailModulePath(int iError);

  const std::string& Root() const { return m_strRoot; }
  std::string ModuleDirectory() const { return m_strRoot + "/bin"; }
  // As the component composes it from the default configuration, with the slash at its end.
  std::string CacheDirectory() const { return ModuleDirectory() + "/../data/qmlogcache/"; }
  // A sender's cache file.
  std::string CacheFile(const std::string& strSender) const { return CacheDirectory() + strSender + ".db"; }

 private:
  std::string m_strRoot;
  bool m_bOwn;
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_INSTALL_PREFIX_H_
