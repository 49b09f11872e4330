// What one write costs: SQLite as it comes against the component's connection settings, one connection an operation,
// interleaved rounds in one process. Prints medians, ratios against SQLite's default of the same round, and syncs an
// operation.
//
// Usage: storage_bench [DIRECTORY [OPERATIONS [ROUNDS]]]
#include <dlfcn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "db/sqlite_wrapper.h"
#include "platform/storage_sync.h"

namespace {
long g_lFileSyncs = 0;
long g_lDirectorySyncs = 0;

void CountSync(int iFile) {
  struct stat info {};
  if (fstat(iFile, &info) == 0 && S_ISDIR(info.st_mode)) {
    ++g_lDirectorySyncs;
  } else {
    ++g_lFileSyncs;
  }
}
}  // namespace

// SQLite reaches these through ordinary dynamic symbols.
extern "C" [[gnu::visibility("default")]] int fsync(int iFile) {
  static const auto pfnNext = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  CountSync(iFile);
  return pfnNext(iFile);
}
extern "C" [[gnu::visibility("default")]] int fdatasync(int iFile) {
  static const auto pfnNext = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"));
  CountSync(iFile);
  return pfnNext(iFile);
}

namespace {

constexpr char kCreateTable[] =
    "CREATE TABLE [logcache] ([dataid] INTEGER NOT NULL PRIMARY KEY, [priv] INTEGER NOT NULL, [msgtype] INTEGER NOT "
    "NULL, [product] VARCHAR(128) NOT NULL, [combo] VARCHAR(128) NOT NULL, [datatype] INTEGER NOT NULL, [data] "
    "longtext NOT NULL, [reserved1] INTEGER NULL, [reserved2] VARCHAR(256) NULL);";

struct Settings {
  const char* pszName;
  int iSync;  // 0: SQLite as it comes
};
constexpr Settings kSettings[] = {
    {"SQLite default (DELETE, FULL)", 0}, {"component, sync full", 2}, {"component, sync normal", 1}};

struct Figures {
  std::vector<double> vecRate, vecRatio;
  double dFileSyncs = 0, dDirectorySyncs = 0;
};

void Check(int iRet, const char* pszWhat) {
  if (iRet != SQLITE_OK) {
    fprintf(stderr, "%s: SQLite result %d\n", pszWhat, iRet);
    exit(1);
  }
}

void Execute(const Settings& settings, const std::string& strPath, const std::string& strSql) {
  sqlite3* pDb = nullptr;
  Check(settings.iSync == 0 ? sqlite3_open(strPath.c_str(), &pDb) : sqlite3_opendb(strPath.c_str(), &pDb), "open");
  Check(sqlite3_exec_sql(strSql.c_str(), pDb), "execute");
  Check(sqlite3_closedb(pDb), "close");
}

void Create(const Settings& settings, const std::string& strPath) {
  unlink(strPath.c_str());
  RemoveSideFiles(strPath.c_str());
  sqlite3* pDb = nullptr;
  Check(settings.iSync == 0 ? sqlite3_open(strPath.c_str(), &pDb) : sqlite3_createdb(strPath.c_str(), &pDb), "create");
  Check(sqlite3_exec_sql(kCreateTable, pDb), "table");
  Check(sqlite3_closedb(pDb), "close");
}

double Measure(int iOperations, Figures& figures, const std::function<void(int)>& operation) {
  g_lFileSyncs = 0;
  g_lDirectorySyncs = 0;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 1; i <= iOperations; ++i) {
    operation(i);
  }
  const double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  figures.dFileSyncs = static_cast<double>(g_lFileSyncs) / iOperations;
  figures.dDirectorySyncs = static_cast<double>(g_lDirectorySyncs) / iOperations;
  figures.vecRate.push_back(iOperations / dSeconds);
  return iOperations / dSeconds;
}

double Median(std::vector<double> vec) {
  std::sort(vec.begin(), vec.end());
  return vec[vec.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const std::string strDirectory = argc > 1 ? argv[1] : ".";
  const int iOperations = argc > 2 ? atoi(argv[2]) : 1000;
  const int iRounds = argc > 3 ? atoi(argv[3]) : 5;
  const std::string strPath = strDirectory + "/storage_bench.db";
  const std::string strPayload(400, 'x');
  Figures inserts[3];
  Figures deletes[3];
  for (int iRound = 0; iRound < iRounds; ++iRound) {
    double dInsertBase = 0;
    double dDeleteBase = 0;
    for (size_t i = 0; i < 3; ++i) {
      const Settings& settings = kSettings[i];
      if (settings.iSync != 0) {
        QmSetStorageSync(settings.iSync);
      }
      Create(settings, strPath);
      const double dInsert = Measure(iOperations, inserts[i], [&](int n) {
        Execute(settings, strPath,
                "insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values (" +
                    std::to_string(n) + ", 1, 1, '', '', 0, '" + strPayload + "');");
      });
      const double dDelete = Measure(iOperations, deletes[i], [&](int n) {
        Execute(settings, strPath, "delete from logcache where dataid = " + std::to_string(n) + ";");
      });
      dInsertBase = i == 0 ? dInsert : dInsertBase;
      dDeleteBase = i == 0 ? dDelete : dDeleteBase;
      inserts[i].vecRatio.push_back(dInsert / dInsertBase);
      deletes[i].vecRatio.push_back(dDelete / dDeleteBase);
    }
  }
  unlink(strPath.c_str());
  RemoveSideFiles(strPath.c_str());
  printf("%d operations a round, %d rounds, 400-byte payload; medians\n", iOperations, iRounds);
  printf(
      "| settings | insert/s | ratio | file syncs + directory syncs | delete/s | ratio | syncs "
      "|\n|---|---|---|---|---|---|---|\n");
  for (size_t i = 0; i < 3; ++i) {
    printf("| %s | %.0f | %.2f | %.2f + %.2f | %.0f | %.2f | %.2f + %.2f |\n", kSettings[i].pszName,
           Median(inserts[i].vecRate), Median(inserts[i].vecRatio), inserts[i].dFileSyncs, inserts[i].dDirectorySyncs,
           Median(deletes[i].vecRate), Median(deletes[i].vecRatio), deletes[i].dFileSyncs, deletes[i].dDirectorySyncs);
  }
  return 0;
}
