#include "tests/power_cut/record_stores.h"

#include <sqlite3.h>

#include <array>
#include <list>

#include "cachefile/log_cache_file.h"
#include "platform/storage_sync.h"

namespace {

CPString Text(const std::string& strText) {
  return CPString(std::string_view(strText));
}

class CComponentStore : public IRecordStore {
 public:
  CComponentStore(const std::string& strDirectory, int iStorageSync) : m_strDirectory(Text(strDirectory + "/")) {
    if (QmSetStorageSync(iStorageSync) != 0) {
      abort();
    }
    for (int i = 0; i < kFiles; ++i) {
      const std::string strName = DatabaseName(i);
      m_files[static_cast<size_t>(i)].InitFile(kNoLimit, m_strDirectory, Text(strName.substr(0, strName.rfind('.'))));
    }
  }

  bool Insert(int iFile, const Row& row, bool bCover) override {
    return File(iFile).AddCacheData(row.u64DataId, row.iPriv, row.iMsgType, Text(row.strProduct), Text(row.strCombo),
                                    Text(row.strData), bCover ? 1 : 0) == 0;
  }

  bool Delete(int iFile, uint64_t u64DataId) override { return File(iFile).DeleteCacheData(u64DataId) == 0; }

  bool Batch(int iFile, const std::vector<Row>& vecRows) override {
    CLogCacheFile& file = File(iFile);
    file.BatchBegin();
    bool bDone = true;
    for (const Row& row : vecRows) {
      bDone = file.BatchAddData(row.u64DataId, row.iPriv, row.iMsgType, Text(row.strProduct), Text(row.strCombo),
                                Text(row.strData)) == 0 &&
              bDone;
    }
    return file.BatchEnd() == 0 && bDone;
  }

  // The hundredth delete compacts, whether the row is there or not.
  bool Compact(int iFile) override {
    constexpr int kDeletesPerCompaction = 100;
    bool bDone = true;
    for (int i = 0; i < kDeletesPerCompaction; ++i) {
      bDone = Delete(iFile, 0) && bDone;
    }
    return bDone;
  }

  bool Load(std::vector<Rows>& vecRows) override {
    CLogCacheFile loader;
    loader.InitFile(kNoLimit, m_strDirectory, "");
    std::list<_CacheExecData> listFound;
    if (!loader.GetCacheData(listFound)) {
      return false;
    }
    vecRows.assign(kFiles, {});
    for (const _CacheExecData& found : listFound) {
      for (int i = 0; i < kFiles; ++i) {
        if (found.strFileName == m_files[static_cast<size_t>(i)].GetLogCacheFile()) {
          vecRows[static_cast<size_t>(i)][found.u64DataId] = {found.u64DataId,
                                                              found.iPriv,
                                                              found.iMsgType,
                                                              std::string(found.strProduct.View()),
                                                              std::string(found.strCombo.View()),
                                                              std::string(found.strData.View())};
        }
      }
    }
    return true;
  }

 private:
  static constexpr uint32_t kNoLimit = 1000000;

  CLogCacheFile& File(int iFile) { return m_files.at(static_cast<size_t>(iFile)); }

  CPString m_strDirectory;
  std::array<CLogCacheFile, kFiles> m_files;
};

class CPlainStore : public IRecordStore {
 public:
  CPlainStore(const std::string& strDirectory, const std::string& strPragmas)
      : m_strDirectory(strDirectory), m_strPragmas(strPragmas) {}

  bool Insert(int iFile, const Row& row, bool bCover) override {
    return Run(iFile, (bCover ? "delete from logcache where dataid=(select min(dataid) from logcache);" : "") +
                          InsertText({row}));
  }
  bool Delete(int iFile, uint64_t u64DataId) override {
    return Run(iFile, "delete from logcache where dataid=" + std::to_string(u64DataId));
  }
  bool Batch(int iFile, const std::vector<Row>& vecRows) override { return Run(iFile, InsertText(vecRows)); }
  bool Compact(int iFile) override { return Run(iFile, "vacuum"); }

  bool Load(std::vector<Rows>& vecRows) override {
    vecRows.assign(kFiles, {});
    for (int i = 0; i < kFiles; ++i) {
      if (!Run(i, "select dataid, priv, msgtype, product, combo, data from logcache", AddRow,
               &vecRows[static_cast<size_t>(i)])) {
        return false;
      }
    }
    return true;
  }

 private:
  static int AddRow(void* pArg, int /*nColumn*/, char** ppValue, char** /*ppName*/) {
    const Row row{
        std::stoull(ppValue[0]), std::stoi(ppValue[1]), std::stoi(ppValue[2]), ppValue[3], ppValue[4], ppValue[5]};
    (*static_cast<Rows*>(pArg))[row.u64DataId] = row;
    return 0;
  }

  static std::string InsertText(const std::vector<Row>& vecRows) {
    std::string strSql = "insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values ";
    for (size_t i = 0; i < vecRows.size(); ++i) {
      const Row& row = vecRows[i];
      char* pszRow = sqlite3_mprintf("%s(%llu, %d, %d, '%q', '%q', 0, '%q')", i == 0 ? "" : ",",
                                     static_cast<unsigned long long>(row.u64DataId), row.iPriv, row.iMsgType,
                                     row.strProduct.c_str(), row.strCombo.c_str(), row.strData.c_str());
      strSql += pszRow;
      sqlite3_free(pszRow);
    }
    return strSql;
  }

  bool Run(int iFile, const std::string& strSql, int (*pfnRow)(void*, int, char**, char**) = nullptr,
           void* pArg = nullptr) {
    constexpr char kTable[] =
        "create table if not exists logcache (dataid integer primary key, priv, msgtype, product, combo, datatype, "
        "data);";
    sqlite3* pDb = nullptr;
    const bool bDone = sqlite3_open((m_strDirectory + "/" + DatabaseName(iFile)).c_str(), &pDb) == SQLITE_OK &&
                       sqlite3_exec(pDb, m_strPragmas.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK &&
                       sqlite3_exec(pDb, kTable, nullptr, nullptr, nullptr) == SQLITE_OK &&
                       sqlite3_exec(pDb, strSql.c_str(), pfnRow, pArg, nullptr) == SQLITE_OK;
    sqlite3_close(pDb);
    return bDone;
  }

  std::string m_strDirectory;
  std::string m_strPragmas;
};

}  // namespace

StoreFactory ComponentStore(int iStorageSync) {
  return [iStorageSync](const std::string& strDirectory) {
    return std::make_unique<CComponentStore>(strDirectory, iStorageSync);
  };
}

StoreFactory PlainStore(const std::string& strPragmas) {
  return
      [strPragmas](const std::string& strDirectory) { return std::make_unique<CPlainStore>(strDirectory, strPragmas); };
}

std::string DatabaseName(int iFile) {
  return "0123456" + std::to_string(iFile) + "-89AB-CDEF-0123-456789ABCDEF.db";
}
