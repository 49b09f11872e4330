// Rows: inserts, delete and read. SQL is text with the values spliced in.
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include "db/log_cache_db.h"
#include "db/sqlite_wrapper.h"
#include "platform/base64.h"
#include "platform/log_channels.h"
#include "platform/number_text.h"
#include "platform/status_codes.h"

namespace {

constexpr char kDeleteOldest[] = "DELETE FROM 'logcache' WHERE _ROWID_=(SELECT MIN(_ROWID_) FROM 'logcache');";

constexpr char kInsert[] = "insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values ";

using MallocedText = std::unique_ptr<char, decltype(&free)>;

void QuoteText(CPString& strText) {
  strText.Replace("'", "''");
}

// Brings a payload into the form in which a statement carries it. False when it cannot be encoded.
bool PreparePayload(int iDataType, CPString& strData) {
  if (iDataType != kDataBase64) {
    QuoteText(strData);
    return true;
  }
  const MallocedText pEncoded(base64Encode(strData.c_str(), static_cast<int>(strData.GetLength()), 0), &free);
  if (pEncoded == nullptr) {
    return false;
  }
  strData = pEncoded.get();
  return true;
}

// Appends one row's values. A zero byte in a text stays in it and ends the statement inside a quoted text, so that SQLite
// refuses the statement instead of storing half a text.
void AppendRow(std::string& strSql, unsigned long long u64DataId, int iPriv, int iMsgType, const CPString& strProduct,
               const CPString& strCombo, int iDataType, const CPString& strData) {
  strSql.append("(").append(CNumberText(u64DataId).View());
  strSql.append(", ").append(CNumberText(iPriv).View());
  strSql.append(", ").append(CNumberText(iMsgType).View());
  strSql.append(", '").append(strProduct.View());
  strSql.append("', '").append(strCombo.View());
  strSql.append("', ").append(CNumberText(iDataType).View());
  strSql.append(", '").append(strData.View()).append("')");
}

// Closes the connection on every way out.
class CDbConnection {
 public:
  CDbConnection(CLogCacheDb& db, const CPString& strFile) : m_db(db), m_pHandle(db.GetDbFileHandle(strFile)) {}
  ~CDbConnection() { m_db.CloseDbFileHandle(&m_pHandle); }
  CDbConnection(const CDbConnection&) = delete;
  CDbConnection& operator=(const CDbConnection&) = delete;
  sqlite3* Handle() const { return m_pHandle; }

 private:
  CLogCacheDb& m_db;
  sqlite3* m_pHandle;
};

}  // namespace

int CLogCacheDb::AddDbData(const CPString& strFile, unsigned long long u64DataId, int iPriv, int iMsgType,
                           int iDataType, CPString strProduct, CPString strCombo, CPString strData, int iCover) {
  const CDbConnection connection(*this, strFile);
  if (connection.Handle() == nullptr) {
    return kStatusNoConnection;
  }
  QuoteText(strProduct);
  QuoteText(strCombo);
  try {
    if (!PreparePayload(iDataType, strData)) {
      return kStatusEncodeFailed;
    }
    std::string strSql = iCover != 0 ? kDeleteOldest : "";
    strSql += kInsert;
    AppendRow(strSql, u64DataId, iPriv, iMsgType, strProduct, strCombo, iDataType, strData);
    strSql += ";";
    if (sqlite3_exec_sql(strSql.c_str(), connection.Handle()) == 0) {
      return kStatusOk;
    }
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheDb::AddDbData sqlite3_exec_sql error u64DataId[%llx] iPriv[%d] iMsgType[%d] "
             "iDataType[%d] strProduct[%s] strCombo[%s] iRet[%x] strFile[%s]",
             u64DataId, iPriv, iMsgType, iDataType, strProduct.c_str(), strCombo.c_str(),
             static_cast<unsigned int>(kStatusInsertFailed), strFile.c_str());
    return kStatusInsertFailed;
  } catch (const std::exception&) {
    return kStatusInsertThrew;
  }
}

int CLogCacheDb::AddDbData(const CPString& strFile, const std::list<_CacheDbData>& listData) {
  const CDbConnection connection(*this, strFile);
  if (connection.Handle() == nullptr) {
    return kStatusNoConnection;
  }
  if (listData.empty()) {
    return kStatusOk;
  }
  try {
    std::string strSql = kInsert;
    unsigned int uCount = 0;
    for (const _CacheDbData& data : listData) {
      CPString strProduct = data.strProduct;
      CPString strCombo = data.strCombo;
      CPString strData = data.strData;
      QuoteText(strProduct);
      QuoteText(strCombo);
      if (PreparePayload(data.iDataType, strData)) {
        if (uCount != 0) {
          strSql += ", ";
        }
        AppendRow(strSql, data.u64DataId, data.iPriv, data.iMsgType, strProduct, strCombo, data.iDataType, strData);
      }
      // Raised for a row that was left out too, so that the statement fails and the caller hears of it; meant.
      ++uCount;
    }
    strSql += ";";
    if (sqlite3_exec_sql(strSql.c_str(), connection.Handle()) == 0) {
      return kStatusOk;
    }
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheDb::AddDbData sqlite3_exec_sql error  iRet[%x] strFile[%s] strSql[%s]",
             static_cast<unsigned int>(kStatusInsertFailed), strFile.c_str(), strSql.c_str());
    return kStatusInsertFailed;
  } catch (const std::exception&) {
    return kStatusInsertThrew;
  }
}

int CLogCacheDb::DeleteDbData(unsigned long long u64DataId, const CPString& strFile) {
  const CDbConnection connection(*this, strFile);
  if (connection.Handle() == nullptr) {
    return kStatusNoConnection;
  }
  try {
    CPString strSql;
    strSql.Format("delete from logcache where dataid = %llu;", u64DataId);
    if (sqlite3_exec_sql(strSql.c_str(), connection.Handle()) == 0) {
      return kStatusOk;
    }
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheDb::DeleteDbData sqlite3_exec_sql error u64DataId[%llx] iRet[%x] strFile[%s]",
             u64DataId, static_cast<unsigned int>(kStatusDeleteFailed), strFile.c_str());
    return kStatusDeleteFailed;
  } catch (const std::exception&) {
    return kStatusDeleteThrew;
  }
}

int CLogCacheDb::GetAllDbData(const CPString& strFile, uint32_t dwCountLimit, std::list<_CacheDbData>& listData) {
  const CDbConnection connection(*this, strFile);
  if (connection.Handle() == nullptr) {
    return kStatusNoConnection;
  }
  if (dwCountLimit == 0) {
    return kStatusNoRowsWanted;
  }
  try {
    CPString strSql;
    strSql.Format("select * from logcache limit %u;", dwCountLimit);
    if (sqlite3_exec_sql2(strSql.c_str(), connection.Handle(), QueryCallback, &listData) == 0) {
      return kStatusOk;
    }
    LogPrint(g_hLog, kLogWarning,
             "*qmlogcache CLogCacheDb::GetAllDbData sqlite3_exec_sql2 error iRet[%x] dwCountLimit[%u] strFile[%s]",
             static_cast<unsigned int>(kStatusSelectFailed), dwCountLimit, strFile.c_str());
    return kStatusSelectFailed;
  } catch (const std::exception&) {
    return kStatusSelectThrew;
  }
}

int CLogCacheDb::QueryCallback(void* pArg, int nColumn, char** ppValue, char** ppName) {
  if (pArg == nullptr || ppValue == nullptr || ppName == nullptr) {
    return -1;
  }
  constexpr int kDecimal = 10;
  try {
    _CacheDbData data;
    for (int i = 0; i < nColumn; ++i) {
      const char* pszValue = ppValue[i];
      if (pszValue == nullptr || ppName[i] == nullptr) {
        continue;
      }
      const std::string_view svName(ppName[i]);
      if (svName == "dataid") {
        data.u64DataId = strtoull(pszValue, nullptr, 0);
      } else if (svName == "priv") {
        data.iPriv = static_cast<int>(strtol(pszValue, nullptr, kDecimal));
      } else if (svName == "msgtype") {
        data.iMsgType = static_cast<int>(strtol(pszValue, nullptr, kDecimal));
      } else if (svName == "product") {
        data.strProduct = pszValue;
      } else if (svName == "combo") {
        data.strCombo = pszValue;
      } else if (svName == "data") {
        data.strData = pszValue;
      } else if (svName == "datatype") {
        data.iDataType = static_cast<int>(strtol(pszValue, nullptr, kDecimal));
      }
    }
    if (data.iDataType == kDataBase64) {
      const MallocedText pDecoded(base64Decode(data.strData.c_str(), static_cast<int>(data.strData.GetLength()), 0),
                                  &free);
      if (pDecoded == nullptr) {
        return -1;
      }
      data.strData = pDecoded.get();
    }
    static_cast<std::list<_CacheDbData>*>(pArg)->push_back(std::move(data));
    return 0;
  } catch (const std::exception&) {
    return -1;  // nothing may be thrown through SQLite
  }
}
