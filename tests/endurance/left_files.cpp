#include "left_files.h"

#include <dlfcn.h>
#include <sqlite3.h>
#include <zlib.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "destination.h"
#include "tests/component/cache_files.h"
#include "tests/component/payloads.h"
#include "tests/component/plugin_host.h"

namespace {

constexpr char kSoundSchema[] = "CREATE TABLE [logcache]";
constexpr char kDamagedSchema[] = "CREATE TABLX [logcache]";
constexpr char kSoundHeader[] = "SQLite format 3";
constexpr char kDamagedHeader[] = "SQLite format X";
constexpr uintmax_t kEmptyFile = 1;  // bytes; SQLite takes a single one for none

struct DbClose {
  void operator()(sqlite3* pDb) const { sqlite3_close(pDb); }
};
using Db = std::unique_ptr<sqlite3, DbClose>;

Db Open(const std::string& strFile) {
  sqlite3* pDb = nullptr;
  const int iRet = sqlite3_open_v2(strFile.c_str(), &pDb, SQLITE_OPEN_READWRITE, nullptr);
  Db db(pDb);
  if (iRet != SQLITE_OK) {
    throw std::runtime_error(strFile + ": " + sqlite3_errmsg(pDb));
  }
  return db;
}

// Empty when the file is sound.
std::string ProblemOf(const std::string& strFile) {
  const auto keepFirst = [](void* pArg, int nColumn, char** ppValue, char**) {
    auto& strFirst = *static_cast<std::string*>(pArg);
    if (strFirst.empty() && nColumn == 1 && ppValue[0] != nullptr) {
      strFirst = ppValue[0];
    }
    return 0;
  };
  const Db db = Open(strFile);
  std::string strFirst;
  if (sqlite3_exec(db.get(), "PRAGMA integrity_check", keepFirst, &strFirst, nullptr) != SQLITE_OK) {
    return sqlite3_errmsg(db.get());
  }
  return strFirst == "ok" ? "" : strFirst;
}

bool IsEmptyFile(const std::string& strFile) {
  return std::filesystem::file_size(strFile) <= kEmptyFile;
}

std::string Decoded(const std::string& strBase64) {
  using DecodeFunc = char* (*)(const char*, int, int);
  static const auto pfnDecode = reinterpret_cast<DecodeFunc>(dlsym(GetLoadedPlugin().hLibrary, "base64Decode"));
  const std::unique_ptr<char, decltype(&free)> pText(
      pfnDecode(strBase64.c_str(), static_cast<int>(strBase64.size()), 0), &free);
  return pText == nullptr ? std::string() : std::string(pText.get());
}

void AddKeys(const std::string& strFile, std::set<std::string>& setKeys) {
  for (const CacheRow& row : ReadCacheFile(strFile)) {
    // The last rung of a repair writes base64.
    setKeys.insert(KeyOf(ContentOf(row.iDataType == 0 ? row.strData : Decoded(row.strData))));
  }
}

std::string Contents(const std::string& strFile) {
  std::ifstream file(strFile, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void Write(const std::string& strFile, const std::string& strBytes) {
  std::ofstream file(strFile, std::ios::binary | std::ios::trunc);
  file << strBytes;
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + strFile);
  }
}

// The beginning of the file, when the backup was cut short.
std::string Unpack(const std::string& strBackup) {
  std::string strBytes;
  gzFile pBackup = gzopen(strBackup.c_str(), "rb");
  if (pBackup == nullptr) {
    return strBytes;
  }
  std::array<char, 65536> block{};
  int iRead = 0;
  while ((iRead = gzread(pBackup, block.data(), static_cast<unsigned int>(block.size()))) > 0) {
    strBytes.append(block.data(), static_cast<size_t>(iRead));
  }
  gzclose(pBackup);
  return strBytes;
}

bool Swap(std::string& strBytes, const std::string& strOld, const std::string& strNew) {
  const size_t uAt = strBytes.find(strOld);
  if (uAt == std::string::npos) {
    return false;
  }
  strBytes.replace(uAt, strOld.size(), strNew);
  return true;
}

void Damage(const std::string& strFile, const std::string& strSound, const std::string& strDamaged) {
  std::string strBytes = Contents(strFile);
  if (!Swap(strBytes, strSound, strDamaged)) {
    throw std::runtime_error("cannot damage " + strFile);
  }
  Write(strFile, strBytes);
}

void AddKeysOfBackup(const std::string& strBackup, const std::string& strScratch, std::set<std::string>& setKeys) {
  const std::string strUnpacked = strScratch + "/unpacked";
  for (const char* pszSuffix : {"", "-wal", "-shm"}) {
    std::filesystem::remove(strUnpacked + pszSuffix);
  }
  std::string strBytes = Unpack(strBackup);
  static_cast<void>(Swap(strBytes, kDamagedSchema, kSoundSchema));
  static_cast<void>(Swap(strBytes, kDamagedHeader, kSoundHeader));
  Write(strUnpacked, strBytes);
  if (!IsEmptyFile(strUnpacked) && ProblemOf(strUnpacked).empty()) {
    AddKeys(strUnpacked, setKeys);
  }
}

}  // namespace

LeftFiles LookAt(const std::string& strDirectory, const std::string& strScratch) {
  std::filesystem::remove_all(strScratch);
  if (std::filesystem::exists(strDirectory)) {
    std::filesystem::copy(strDirectory, strScratch);
  }
  LeftFiles left;
  for (const std::string& strName : NamesIn(strScratch)) {
    const std::string strFile = strScratch + "/" + strName;
    if (strName.ends_with(".db")) {
      const std::string strProblem = ProblemOf(strFile);
      if (!strProblem.empty()) {
        left.vecProblems.push_back(strName + ": " + strProblem);
      } else if (!IsEmptyFile(strFile)) {
        AddKeys(strFile, left.setInFiles);
      }
    } else if (strName.ends_with(".db.zip")) {
      ++left.uBackups;
      AddKeysOfBackup(strFile, strScratch, left.setInBackups);
    } else if (!strName.ends_with(".db-wal") && !strName.ends_with(".db-shm") && !strName.ends_with(".db-journal")) {
      left.vecStrays.push_back(strName);
    }
  }
  return left;
}

void FoldLog(const std::string& strFile) {
  ExecuteOn(strFile, "PRAGMA wal_checkpoint(TRUNCATE)");
}

void DamageSchema(const std::string& strFile) {
  Damage(strFile, kSoundSchema, kDamagedSchema);
}

void DamageHeader(const std::string& strFile) {
  Damage(strFile, kSoundHeader, kDamagedHeader);
}

void ExecuteOn(const std::string& strFile, const std::string& strSql) {
  const Db db = Open(strFile);
  if (sqlite3_exec(db.get(), strSql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw std::runtime_error(strFile + ": " + sqlite3_errmsg(db.get()));
  }
}
