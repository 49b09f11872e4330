// An installation of the process's own: bin/, etc/qmlogcache/ and data/ in a directory under TMPDIR that is removed at
// exit. The component takes bin/ for the directory of the running program.
#ifndef QMLOGCACHE_TESTS_FUZZ_SUPPORT_INSTALLATION_H_
#define QMLOGCACHE_TESTS_FUZZ_SUPPORT_INSTALLATION_H_

#include <string>
#include <string_view>

class CInstallation {
 public:
  // Made at the first call; ends the process when that is not possible.
  static CInstallation& Instance();

  // A path inside, given without a leading slash.
  std::string Path(std::string_view svName) const { return m_strRoot + "/" + std::string(svName); }
  // The lines of the component's configuration section.
  void WriteConfig(std::string_view svLines) const;

  CInstallation(const CInstallation&) = delete;
  CInstallation& operator=(const CInstallation&) = delete;

 private:
  CInstallation();

  std::string m_strRoot;
};

void WriteFile(const std::string& strPath, std::string_view svBytes);

#endif  // QMLOGCACHE_TESTS_FUZZ_SUPPORT_INSTALLATION_H_
