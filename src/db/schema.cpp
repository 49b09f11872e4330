// Opening, creating and checking cache files.
#include <sqlite3.h>

#include <charconv>
#include <cstring>
#include <exception>
#include <string_view>

#include "db/log_cache_db.h"
#include "db/sqlite_wrapper.h"
#include "platform/file_info.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"

namespace {

constexpr char kCreateTable[] =
    "CREATE TABLE [logcache] ([dataid] INTEGER NOT NULL PRIMARY KEY, [priv] INTEGER NOT NULL, [msgtype] INTEGER NOT "
    "NULL, [product] VARCHAR(128) NOT NULL, [combo] VARCHAR(128) NOT NULL, [datatype] INTEGER NOT NULL, [data] "
    "longtext NOT NULL, [reserved1] INTEGER NULL, [reserved2] VARCHAR(256) NULL);";

// Extended codes carry the primary one in their low byte.
bool IsEvidenceOfDamage(int iSqliteCode) {
  constexpr int kPrimaryCode = 0xff;
  return (iSqliteCode & kPrimaryCode) == SQLITE_CORRUPT || (iSqliteCode & kPrimaryCode) == SQLITE_NOTADB;
}

// Opens or creates. iRet: the failing wrapper's result, 0 when none failed.
sqlite3* OpenDbFile(const CPString& strFile, int& iRet) {
  sqlite3* pHandle = nullptr;
  RollBackJournal(strFile.c_str());
  // The first question answers for nearly every operation.
  if (HasContents(strFile.c_str()) || (QmIsFileExisted(strFile.c_str()) != 0 && !IsCutShort(strFile.c_str()))) {
    iRet = sqlite3_opendb(strFile.c_str(), &pHandle);
    if (iRet == SQLITE_OK) {
      return pHandle;
    }
    LogPrint(g_hLog, kLogWarning, "*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_opendb error iRet[%x] strFile[%s]",
             static_cast<unsigned int>(iRet), strFile.c_str());
  } else {
    iRet = sqlite3_createdb(strFile.c_str(), &pHandle);
    if (iRet != SQLITE_OK || pHandle == nullptr) {
      LogPrint(g_hLog, kLogWarning,
               "*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_createdb error iRet[%x] pHandle[%p] strFile[%s]",
               static_cast<unsigned int>(iRet), static_cast<void*>(pHandle), strFile.c_str());
    } else {
      iRet = sqlite3_exec_sql(kCreateTable, pHandle);
      if (iRet == SQLITE_OK) {
        return pHandle;
      }
      LogPrint(g_hLog, kLogWarning,
               "*qmlogcache CLogCacheDb::GetDbFileHandle sqlite3_exec_sql error iRet[%x] strFile[%s]",
               static_cast<unsigned int>(iRet), strFile.c_str());
    }
  }
  if (pHandle != nullptr) {
    sqlite3_closedb(pHandle);
  }
  return nullptr;
}

// A row may also tell of a page that could not be read for want of memory or by a failing disk; that is no damage.
bool TellsOfDamage(const char* pszRow) {
  constexpr char kErrorCode[] = "error code=";
  const std::string_view svRow(pszRow);
  const size_t uCode = svRow.find(kErrorCode);
  if (uCode == std::string_view::npos) {
    return svRow.find("failed to get page") == std::string_view::npos;  // of a payload's chain; it tells no code
  }
  int iCode = 0;
  std::from_chars(pszRow + uCode + sizeof(kErrorCode) - 1, pszRow + svRow.size(), iCode);
  return IsEvidenceOfDamage(iCode);
}

// Runs the quick check on an open file.
DbCheck RunQuickCheck(sqlite3* pHandle) {
  sqlite3_stmt* pStmt = nullptr;
  int iRet = wrap_sqlite3_prepare(pHandle, "PRAGMA quick_check;", -1, &pStmt, nullptr);
  DbCheck result = DbCheck::Unknown;
  if (iRet == SQLITE_OK) {
    bool bProblem = false;
    while ((iRet = wrap_sqlite3_step(pStmt)) == SQLITE_ROW) {
      const char* pszText = wrap_sqlite3_column_text(pStmt, 0);
      if (pszText == nullptr) {
        continue;
      }
      if (strcmp(pszText, "ok") == 0) {
        result = DbCheck::Sound;
        break;
      }
      bProblem = bProblem || TellsOfDamage(pszText);
    }
    if (result != DbCheck::Sound && bProblem) {
      result = DbCheck::Damaged;
    }
  }
  if (result != DbCheck::Sound && IsEvidenceOfDamage(iRet)) {
    result = DbCheck::Damaged;
  }
  wrap_sqlite3_finalize(pStmt);
  return result;
}

}  // namespace

sqlite3* CLogCacheDb::GetDbFileHandle(const CPString& strFile) {
  int iRet = SQLITE_OK;
  try {
    return OpenDbFile(strFile, iRet);
  } catch (const std::exception&) {
    return nullptr;
  }
}

int CLogCacheDb::CloseDbFileHandle(sqlite3** ppDb) {
  if (ppDb == nullptr || *ppDb == nullptr) {
    return -1;
  }
  try {
    const int iRet = sqlite3_closedb(*ppDb);
    *ppDb = nullptr;
    return iRet;
  } catch (const std::exception&) {
    try {
      LogPrintStr(g_hLog, kLogWarning, "*qmlogcache CLogCacheDb::CloseDbFileHandle sqlite3_closedb catch error");
    } catch (const std::exception&) {
      return kStatusLogThrew;
    }
    return -1;
  }
}

int CLogCacheDb::CheckDbFile(const CPString& strFile) {
  return ExamineDbFile(strFile) == DbCheck::Sound ? 0 : -1;
}

DbCheck CLogCacheDb::ExamineDbFile(const CPString& strFile) {
  // What is damaged is damaged the second time too; a failure that has passed by then was none.
  const DbCheck first = ExamineOnce(strFile);
  return first == DbCheck::Damaged ? ExamineOnce(strFile) : first;
}

DbCheck CLogCacheDb::ExamineOnce(const CPString& strFile) {
  int iRet = SQLITE_OK;
  sqlite3* pHandle = nullptr;
  try {
    pHandle = OpenDbFile(strFile, iRet);
  } catch (const std::exception&) {
    return DbCheck::Unknown;
  }
  DbCheck result = IsEvidenceOfDamage(iRet) ? DbCheck::Damaged : DbCheck::Unknown;
  if (pHandle != nullptr) {
    result = RunQuickCheck(pHandle);
    CloseDbFileHandle(&pHandle);
  }
  // To SQLite a file is corrupt, too, whose disk answers EIO.
  return result == DbCheck::Damaged && !IsReadable(strFile.c_str()) ? DbCheck::Unknown : result;
}
