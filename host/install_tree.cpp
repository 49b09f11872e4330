#include "host/install_tree.h"

#include <sys/types.h>

#include "host/data_dir.h"

namespace {

struct TreeDirectory {
  const char* pszName;
  mode_t mode;
};

// What holds records is not for everybody.
constexpr TreeDirectory kTree[] = {{"etc/qmlogcache", 0755}, {"data", 0750}, {"log", 0750}};

}  // namespace

std::string MakeInstallTree(const std::string& strPrefix) {
  std::string strReasons;
  for (const TreeDirectory& directory : kTree) {
    std::string strReason;
    if (!MakeDirectories(strPrefix + "/" + directory.pszName, directory.mode, strReason)) {
      strReasons += (strReasons.empty() ? "" : "; ") + strReason;
    }
  }
  return strReasons;
}
