#include "tools/qmcache/output_guard.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "tools/qmcache/private_copy.h"

namespace {

struct DirectoryClose {
  void operator()(DIR* pDirectory) const { closedir(pDirectory); }
};

bool IsSame(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

bool IsIn(const std::string& strFile, const std::string& strDirectory) {
  const size_t uSlash = strFile.rfind('/');
  const std::string strParent = uSlash == std::string::npos ? "." : strFile.substr(0, uSlash + 1);
  struct stat parent {};
  struct stat directory {};
  return stat(strParent.c_str(), &parent) == 0 && stat(strDirectory.c_str(), &directory) == 0 &&
         IsSame(parent, directory);
}

// Whether a regular file of the directory has this name, too.
bool IsAlsoIn(const struct stat& file, const std::string& strDirectory) {
  const std::unique_ptr<DIR, DirectoryClose> pDirectory(opendir(strDirectory.c_str()));
  while (const dirent* pEntry = pDirectory != nullptr ? readdir(pDirectory.get()) : nullptr) {
    struct stat info {};
    if (fstatat(dirfd(pDirectory.get()), pEntry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode) &&
        IsSame(info, file)) {
      return true;
    }
  }
  return false;
}

// A database, its log, its journal, or what is packed.
bool HasSuchContents(const std::string& strFile) {
  using std::string_view_literals::operator""sv;
  constexpr std::array kMagics = {"SQLite format 3\0"sv, "\x37\x7f\x06\x82"sv,
                                  "\x37\x7f\x06\x83"sv,  "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7"sv,
                                  "\x1f\x8b"sv,          "PK\x03\x04"sv};
  std::array<char, 16> acStart{};
  const int iFile = OpenRegularFile(strFile);
  if (iFile < 0) {
    return false;
  }
  const ssize_t iRead = pread(iFile, acStart.data(), acStart.size(), 0);
  close(iFile);
  const std::string_view svStart(acStart.data(), iRead > 0 ? static_cast<size_t>(iRead) : 0);
  return std::any_of(kMagics.begin(), kMagics.end(), [&](std::string_view sv) { return svStart.starts_with(sv); });
}

}  // namespace

std::string ObjectionTo(const std::string& strOutput, const std::string& strCacheDirectory) {
  struct stat info {};
  if (strOutput == "-") {
    return {};
  }
  if (IsIn(strOutput, strCacheDirectory)) {
    return strOutput + " is in the cache directory, where nothing is written";
  }
  if (stat(strOutput.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return {};
  }
  if (IsAlsoIn(info, strCacheDirectory)) {
    return strOutput + " is a file of the cache directory; it is not written over";
  }
  return HasSuchContents(strOutput) ? strOutput + " is a database or a backup; it is not written over" : std::string();
}
