// A directory as the component finds it beside its program. The executable that links this defines QmGetModuleFilePath,
// which names the bin directory of the installation that lives; one at a time.
#ifndef QMLOGCACHE_BENCH_SUPPORT_INSTALLATION_H_
#define QMLOGCACHE_BENCH_SUPPORT_INSTALLATION_H_

#include <string>

// bin/, etc/, data/ and log/ in a fresh directory, which goes with the object. Throws std::runtime_error where it cannot
// be made.
class CBenchInstallation {
 public:
  // In strDirectory, which exists, or where temporary files go if it is empty. strKeys: lines of the section
  // "logcache". The log has its default levels.
  CBenchInstallation(const std::string& strDirectory, const std::string& strKeys);
  ~CBenchInstallation();
  CBenchInstallation(const CBenchInstallation&) = delete;
  CBenchInstallation& operator=(const CBenchInstallation&) = delete;

  const std::string& Root() const { return m_strRoot; }
  std::string CacheDirectory() const { return m_strRoot + "/data/qmlogcache/"; }
  // For the lives that begin from now on.
  void Configure(const std::string& strKeys) const;

 private:
  std::string m_strRoot;
};

#endif  // QMLOGCACHE_BENCH_SUPPORT_INSTALLATION_H_
