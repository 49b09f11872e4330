#include "host/status/cache_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <utility>

#include "platform/ini_reader.h"

namespace {

constexpr uint64_t kDefaultTotalLimit = uint64_t{2} << 30;
constexpr uint64_t kDefaultFileLimit = 524288000;
constexpr int kDeepest = 8;
constexpr std::string_view kSuffix = ".db";

int TakeKey(void* pUser, const char* pszSection, const char* pszName, const char* pszValue, int /*iLine*/) {
  auto& settings = *static_cast<CacheSettings*>(pUser);
  if (strcasecmp(pszSection, "logcache") != 0) {
    return 1;
  }
  try {
    if (strcasecmp(pszName, "logcachepath") == 0) {
      settings.strDirectory = pszValue;
    } else if (strcasecmp(pszName, "logcachesize") == 0) {
      settings.u64FileLimit = std::strtoull(pszValue, nullptr, 0);
    } else if (strcasecmp(pszName, "logcachetotalsize") == 0) {
      settings.u64TotalLimit = std::strtoull(pszValue, nullptr, 0);
    } else if (strcasecmp(pszName, "datacoverflag") == 0) {
      settings.bKeepsAll = std::strtol(pszValue, nullptr, 10) == 0;
    }
  } catch (...) {
    return 0;
  }
  return 1;
}

// The cache file that a file belongs to: itself, or the one whose log it is. Empty for any other.
std::string_view SenderOf(std::string_view svName) {
  for (const std::string_view svSide :
       {std::string_view("-wal"), std::string_view("-shm"), std::string_view("-journal")}) {
    if (svName.size() > svSide.size() && svName.substr(svName.size() - svSide.size()) == svSide) {
      svName.remove_suffix(svSide.size());
      break;
    }
  }
  const bool bCacheFile = svName.size() > kSuffix.size() && svName.substr(svName.size() - kSuffix.size()) == kSuffix;
  return bCacheFile ? svName.substr(0, svName.size() - kSuffix.size()) : std::string_view();
}

// The text with its bad bytes replaced.
std::string AsUtf8(const std::string& strText) {
  using nlohmann::json;
  return json::parse(json(strText).dump(-1, ' ', false, json::error_handler_t::replace)).get<std::string>();
}

struct DirectoryCloser {
  void operator()(DIR* pDir) const { closedir(pDir); }
};

class CScan {
 public:
  // False when the directory cannot be read.
  bool Walk(int iParent, const char* pszName, int iDepth) {
    const int iDirectory = openat(iParent, pszName, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (iDepth > 0 ? O_NOFOLLOW : 0));
    const std::unique_ptr<DIR, DirectoryCloser> pDir(iDirectory >= 0 ? fdopendir(iDirectory) : nullptr);
    if (!pDir) {
      if (iDirectory >= 0) {
        close(iDirectory);
      }
      return false;
    }
    while (const dirent* pEntry = readdir(pDir.get())) {
      const std::string_view svName(pEntry->d_name);
      struct stat info {};
      if (svName == "." || svName == ".." || fstatat(iDirectory, pEntry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
        continue;
      }
      if (S_ISDIR(info.st_mode) && iDepth < kDeepest) {
        Walk(iDirectory, pEntry->d_name, iDepth + 1);
      } else if (S_ISREG(info.st_mode)) {
        Add(svName, info, iDepth == 0);
      }
    }
    return true;
  }

  std::vector<std::string> Names() const {
    std::vector<std::string> vecNames;
    for (const auto& [strSender, file] : m_mapFiles) {
      vecNames.push_back(file.strFile);
    }
    return vecNames;
  }

  CacheContents Take() {
    CacheContents contents;
    contents.bReadable = true;
    contents.u64Bytes = m_u64Bytes;
    contents.uFiles = m_mapFiles.size();
    for (auto& [strSender, file] : m_mapFiles) {
      contents.vecFiles.push_back(std::move(file));
    }
    std::stable_sort(contents.vecFiles.begin(), contents.vecFiles.end(),
                     [](const CacheFile& left, const CacheFile& right) { return left.u64Bytes > right.u64Bytes; });
    if (contents.vecFiles.size() > kMostCacheFiles) {
      contents.vecFiles.resize(kMostCacheFiles);
    }
    std::set<std::string> setSenders;
    std::vector<CacheFile> vecTold;
    for (CacheFile& file : contents.vecFiles) {
      file.strSender = AsUtf8(file.strSender);
      if (setSenders.insert(file.strSender).second) {
        vecTold.push_back(std::move(file));
      }
    }
    contents.vecFiles = std::move(vecTold);
    return contents;
  }

 private:
  void Add(std::string_view svName, const struct stat& info, bool bTop) {
    const auto u64Bytes = static_cast<uint64_t>(info.st_size);
    m_u64Bytes += u64Bytes;
    const std::string_view svSender = bTop ? SenderOf(svName) : std::string_view();
    if (svSender.empty()) {
      return;
    }
    CacheFile& file = m_mapFiles[std::string(svSender)];
    file.strSender = svSender;
    file.strFile = file.strSender + std::string(kSuffix);
    file.u64Bytes += u64Bytes;
    const bool bIndex = svName.substr(svName.size() - 3) == "shm";  // changes with every reader
    if (!bIndex) {
      file.i64ChangedNs =
          std::max<int64_t>(file.i64ChangedNs, info.st_mtim.tv_sec * int64_t{1000000000} + info.st_mtim.tv_nsec);
    }
  }

  uint64_t m_u64Bytes = 0;
  std::map<std::string, CacheFile> m_mapFiles;
};

}  // namespace

CacheSettings ReadCacheSettings(const std::string& strProgramDirectory) {
  CacheSettings settings{"../data/qmlogcache/", kDefaultTotalLimit, kDefaultFileLimit, true};
  const std::string strFile = strProgramDirectory + "/../etc/qmlogcache/qmlogcache.conf";
  // A file that is not there, or is faulty, leaves the defaults, for the component too.
  static_cast<void>(wrap_ini_parse(strFile.c_str(), TakeKey, &settings));
  settings.strDirectory = strProgramDirectory + "/" + settings.strDirectory;
  return settings;
}

CacheContents ScanCacheDirectory(const std::string& strDirectory) {
  CScan scan;
  if (scan.Walk(AT_FDCWD, strDirectory.c_str(), 0)) {
    return scan.Take();
  }
  CacheContents none;
  none.bMissing = errno == ENOENT;
  return none;
}

std::optional<std::vector<std::string>> ListCacheFiles(const std::string& strDirectory) {
  CScan scan;
  if (scan.Walk(AT_FDCWD, strDirectory.c_str(), 0)) {
    return scan.Names();
  }
  return errno == ENOENT ? std::optional<std::vector<std::string>>(std::in_place) : std::nullopt;
}
