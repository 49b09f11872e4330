#include "tests/fuzz/support/cache_directory.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "cachefile/log_cache_file.h"
#include "platform/status_codes.h"
#include "tests/fuzz/support/fuzz_check.h"
#include "tests/fuzz/support/installation.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kSides[] = {"", "-wal", "-journal", "-shm"};

std::string In(const char* pszName) {
  return CInstallation::Instance().Path(pszName);
}

std::string ContentsOf(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace

CCacheDirectory::CCacheDirectory() {
  for (const char* pszName : {"scratch", "cache", "kept", "outside"}) {
    fs::create_directories(In(pszName));
  }
  CLogCacheFile other;
  other.InitFile(1, CPString(In("kept/")), kOther);
  FUZZ_CHECK(other.AddCacheData(1, 1, 1, "product", "combo", kOtherData, 0) == kStatusOk);
  WriteFile(In("outside/plain"), "somebody else's");
  for (const char* pszSide : kSides) {
    if (fs::exists(In("kept/other.db") + pszSide)) {
      fs::copy_file(In("kept/other.db") + pszSide, In("outside/sound.db") + pszSide);
    }
  }
  m_mapOutside = Outside();
}

void CCacheDirectory::Fill(const DatabaseBytes& bytes, const Planted& planted) {
  m_planted = planted;
  for (const auto& entry : fs::directory_iterator(In("cache"))) {
    fs::remove(entry);
  }
  for (const char* pszSide : kSides) {
    if (fs::exists(In("kept/other.db") + pszSide)) {
      fs::copy_file(In("kept/other.db") + pszSide, In("cache/other.db") + pszSide);
    }
  }
  WriteFile(SenderFile(), bytes.strFile);
  if (!bytes.strLog.empty()) {
    WriteFile(SenderFile() + planted.pszSide, bytes.strLog);
  }
  if (planted.bBackupIsLink) {
    fs::create_symlink(In("outside/plain"), In("cache/sender1.db.zip"));
  }
  if (planted.bStrayEntries) {
    fs::create_directory(In("cache/directory.db"));
    fs::create_symlink(In("outside/sound.db"), In("cache/link.db"));
  }
}

void CCacheDirectory::Check() const {
  for (const auto& entry : fs::directory_iterator(In("cache"))) {
    std::string strName = entry.path().filename();
    if (strName == "directory.db" || strName == "link.db") {
      FUZZ_CHECK(m_planted.bStrayEntries && (entry.is_symlink() || fs::is_empty(entry)));
      continue;
    }
    const bool bBackup = strName == "sender1.db.zip" || strName == "sender2.db.zip";
    FUZZ_CHECK(fs::is_regular_file(entry.symlink_status()) ||
               (bBackup && m_planted.bBackupIsLink && entry.is_symlink()));
    for (const char* pszSide : kSides) {
      if (strName.ends_with(".db" + std::string(pszSide))) {
        strName.resize(strName.size() - strlen(pszSide));
        break;
      }
    }
    FUZZ_CHECK(strName == "sender.db" || strName == "other.db" || bBackup);
  }
  FUZZ_CHECK(Outside() == m_mapOutside);
}

bool CCacheDirectory::WasReplaced() {
  return fs::is_regular_file(fs::symlink_status(In("cache/sender1.db.zip")));
}

CPString CCacheDirectory::Path() {
  return CPString(In("cache/"));
}

std::string CCacheDirectory::SenderFile() {
  return In("cache/sender.db");
}

std::string CCacheDirectory::Scratch() {
  return In("scratch");
}

std::map<std::string, std::string> CCacheDirectory::Outside() {
  std::map<std::string, std::string> mapOutside;
  for (auto it = fs::recursive_directory_iterator(In("")); it != fs::recursive_directory_iterator(); ++it) {
    const std::string strName = it->path().filename();
    if (it.depth() == 0 && (strName == "cache" || strName == "scratch")) {
      it.disable_recursion_pending();
    } else if (it->is_regular_file()) {
      mapOutside[it->path()] = ContentsOf(it->path());
    } else {
      mapOutside[it->path()] = "(no file)";
    }
  }
  return mapOutside;
}
