// storage_save and storage_load.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/storage/bare_sqlite.h"
#include "bench/storage/groups.h"
#include "bench/storage/measure.h"
#include "bench/storage/sample_records.h"
#include "bench/support/loaded_component.h"
#include "cachefile/log_cache_file.h"
#include "platform/storage_sync.h"
#include "store/log_cache_data.h"

namespace {

constexpr size_t kRecords = 100000;
constexpr int kSyncs[] = {kSyncFull, kSyncNormal};

std::string CaseName(const char* pszWhat, int iSync) {
  return std::string(pszWhat) + (iSync == kSyncFull ? "_full" : "_normal");
}

void PrintRate(const char* pszGroup, const std::string& strCase, int iRound, int iSync, double dSeconds) {
  ResultGroup{pszGroup, DurabilityOfSync(iSync)}.Print(strCase.c_str(), iRound, "rate", "records/s",
                                                       static_cast<double>(kRecords) / dSeconds);
}

BareSync BareSyncOf(int iSync) {
  return iSync == kSyncFull ? BareSync::Full : BareSync::Normal;
}

void Init(CLogCacheData& data) {
  Require(data.InitCacheData() ? 0 : 1, "InitCacheData");
}

void InsertInBatches(const CBareFile& file, const std::vector<BareRow>& vecRows) {
  for (size_t i = 0; i < vecRows.size(); i += CLogCacheFile::kBatchRows) {
    file.Insert(&vecRows[i], std::min(CLogCacheFile::kBatchRows, vecRows.size() - i));
  }
}

void SaveOfComponent(const BenchOptions& options, int iRound, int iSync) {
  Require(QmSetStorageSync(iSync), "QmSetStorageSync");
  const CBenchInstallation installation(options.strDirectory, "dataflowflag = 1\n");
  CLogCacheData data;
  Init(data);
  for (size_t i = 1; i <= kRecords; ++i) {
    Require(data.AddDataAction(0, SampleDataId(i), kSamplePriv, kSampleMsgType, kSavePending, kSampleSender, CPString(),
                               CPString(), SampleText(i)),
            "AddDataAction");
  }
  const double dSeconds = SecondsOf([&] { data.SaveCacheToDb(); });
  const CBareFile file = CBareFile::Existing(installation.CacheDirectory() + kSampleSender + ".db", BareSyncOf(iSync));
  Require(file.Select().size() == kRecords ? 0 : 1, "not all records were saved");
  PrintRate("storage_save", CaseName("component", iSync), iRound, iSync, dSeconds);
}

void SaveOfBareSqlite(const BenchOptions& options, const std::vector<BareRow>& vecRows, int iRound, int iSync) {
  const CBenchInstallation installation(options.strDirectory, "");
  const std::string strPath = installation.Root() + "/data/bare.db";
  const double dSeconds = SecondsOf([&] { InsertInBatches(CBareFile(strPath, BareSyncOf(iSync)), vecRows); });
  PrintRate("storage_save", CaseName("bare", iSync), iRound, iSync, dSeconds);
}

}  // namespace

void RunSave(const BenchOptions& options) {
  const std::vector<BareRow> vecRows = SampleRows(1, kRecords);
  std::vector<Case> vecCases;
  for (const int iSync : kSyncs) {
    vecCases.emplace_back([&, iSync](int iRound) { SaveOfComponent(options, iRound, iSync); });
    vecCases.emplace_back([&, iSync](int iRound) { SaveOfBareSqlite(options, vecRows, iRound, iSync); });
  }
  RunInTurn(options.iRounds, vecCases);
}

void RunLoad(const BenchOptions& options) {
  constexpr int iSync = kSyncFull;  // a read does no sync
  Require(QmSetStorageSync(iSync), "QmSetStorageSync");
  const CBenchInstallation installation(options.strDirectory, "dataflowflag = 0\n");
  std::filesystem::create_directory(installation.CacheDirectory());
  const std::string strPath = installation.CacheDirectory() + kSampleSender + ".db";
  const CBareFile file(strPath, BareSync::Full);
  InsertInBatches(file, SampleRows(1, kRecords));
  const auto component = [&](int iRound) {
    const auto pData = std::make_unique<CLogCacheData>();
    Init(*pData);
    const double dSeconds = SecondsOf([&] { Require(pData->LoadExecData() == 1 ? 0 : 1, "LoadExecData"); });
    Require(pData->IsDataIdExist(SampleDataId(kRecords)) ? 0 : 1, "not all records were loaded");
    PrintRate("storage_load", "component", iRound, iSync, dSeconds);
  };
  const auto bare = [&](int iRound) {
    std::vector<BareRow> vecRows;
    const double dSeconds = SecondsOf([&] { vecRows = file.Select(); });
    Require(vecRows.size() == kRecords ? 0 : 1, "not all rows were read");
    PrintRate("storage_load", "bare", iRound, iSync, dSeconds);
  };
  RunInTurn(options.iRounds, {component, bare});
}
