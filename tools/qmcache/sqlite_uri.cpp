#include "tools/qmcache/sqlite_uri.h"

#include <fmt/format.h>

#include <cstdlib>
#include <memory>

std::string UriOf(const std::string& strPath, const char* pszQuery) {
  const size_t uSlash = strPath.rfind('/');
  const std::string strDirectory = uSlash == std::string::npos ? "." : strPath.substr(0, uSlash + 1);
  const std::string strName = uSlash == std::string::npos ? strPath : strPath.substr(uSlash + 1);
  const std::unique_ptr<char, decltype(&std::free)> pszResolved(realpath(strDirectory.c_str(), nullptr), &std::free);
  if (pszResolved == nullptr) {
    return {};
  }
  std::string strUri = "file:";
  for (const char c : std::string(pszResolved.get()) + "/" + strName) {
    if (c == '%' || c == '?' || c == '#') {
      strUri += fmt::format("%{:02x}", static_cast<unsigned char>(c));
    } else {
      strUri += c;
    }
  }
  return strUri + pszQuery;
}
