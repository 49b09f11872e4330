// storage_insert and storage_insert_delete.
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/storage/acknowledging_destination.h"
#include "bench/storage/bare_sqlite.h"
#include "bench/storage/groups.h"
#include "bench/storage/measure.h"
#include "bench/storage/sample_records.h"
#include "bench/storage/sync_counter.h"
#include "bench/support/loaded_component.h"
#include "cachefile/log_cache_file.h"
#include "platform/storage_sync.h"
#include "plugin/compctx/message_types.h"

namespace {

constexpr char kFlowWriteAtIntakeKey[] = "dataflowflag = 0\n";
constexpr size_t kDeletesPerVacuum = 100;

// With deletes there is one compaction at least.
size_t RecordsOf(const BenchOptions& options, bool bDelete) {
  constexpr size_t kFew = 200;
  constexpr size_t kMany = 1000;
  const size_t uRecords = options.bQuick ? kFew : kMany;
  return bDelete ? uRecords / 2 : uRecords;
}

const char* SuffixOf(int iSync) {
  return iSync == kSyncFull ? "_full" : "_normal";
}

BareSync BareSyncOf(int iSync) {
  return iSync == kSyncFull ? BareSync::Full : BareSync::Normal;
}

// Runs the action, which works on uRecords records, and prints its rate and its syncs.
void PrintRate(const char* pszGroup, const std::string& strCase, int iRound, int iSync, size_t uRecords,
               const std::function<void()>& action) {
  const SyncCount before = SyncsSoFar();
  const double dSeconds = SecondsOf(action);
  const SyncCount after = SyncsSoFar();
  const auto dRecords = static_cast<double>(uRecords);
  const ResultGroup group{pszGroup, DurabilityOfSync(iSync)};
  group.Print(strCase.c_str(), iRound, "rate", "records/s", dRecords / dSeconds);
  group.Print(strCase.c_str(), iRound, "file_syncs", "syncs/record",
              static_cast<double>(after.lFiles - before.lFiles) / dRecords);
  group.Print(strCase.c_str(), iRound, "directory_syncs", "syncs/record",
              static_cast<double>(after.lDirectories - before.lDirectories) / dRecords);
}

// The cases of one group, each on a new file in every round.
class CSingleRecords {
 public:
  CSingleRecords(const char* pszGroup, const BenchOptions& options, bool bDelete)
      : m_pszGroup(pszGroup),
        m_uRecords(RecordsOf(options, bDelete)),
        m_installation(options.strDirectory, kFlowWriteAtIntakeKey),
        m_component(m_destination) {
    m_destination.SetComponent(&m_component);
    // The first row makes the file, the second one moves it to the write-ahead log; they are not counted.
    m_vecRows = SampleRows(1, m_uRecords + kRowsBefore);
    for (size_t i = 0; i < m_vecRows.size(); ++i) {
      m_vecTexts.push_back(SampleText(i + 1));
      m_vecPayloads.push_back(SamplePayload(i + 1));
    }
  }
  ~CSingleRecords() { m_destination.SetComponent(nullptr); }
  CSingleRecords(const CSingleRecords&) = delete;
  CSingleRecords& operator=(const CSingleRecords&) = delete;

  void Component(int iRound, int iSync, bool bDelete) {
    Require(QmSetStorageSync(iSync), "QmSetStorageSync");
    CLogCacheFile file;
    file.InitFile(0, CPString(m_installation.CacheDirectory().c_str()), CPString(NewName().c_str()));
    const auto step = [&](size_t i) {
      const unsigned long long u64DataId = m_vecRows[i].u64DataId;
      Require(file.AddCacheData(u64DataId, kSamplePriv, kSampleMsgType, CPString(), CPString(), m_vecTexts[i], 0),
              "insert");
      if (bDelete) {
        Require(file.DeleteCacheData(u64DataId), "delete");
      }
    };
    Run(std::string("component") + SuffixOf(iSync), iRound, iSync, step);
  }

  void Whole(int iRound, int iSync, bool bDelete) {
    Require(QmSetStorageSync(iSync), "QmSetStorageSync");
    const uint32_t u32Sender = ++m_u32Senders;
    const auto send = [&](size_t i) {
      if (!m_component.Send(u32Sender, LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL, m_vecPayloads[i])) {
        Require(1, "the component refused a record");
      }
    };
    for (size_t i = 0; i < kRowsBefore; ++i) {
      send(i);
    }
    // The space of the directory is looked at once a minute, and for every record of the second in which that happens.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const auto run = [&] {
      for (size_t i = kRowsBefore; i < m_vecRows.size(); ++i) {
        send(i);
      }
      if (bDelete) {
        m_destination.WaitForSettled(m_uWholeRecords += m_vecRows.size());
      }
    };
    PrintRate(m_pszGroup, std::string("whole") + SuffixOf(iSync), iRound, iSync, m_uRecords, run);
  }

  void Bare(int iRound, int iSync, bool bDelete, bool bVacuum) {
    const CBareFile file(NewPath(), BareSyncOf(iSync));
    const char* pszCase = bDelete && !bVacuum ? "bare_without_vacuum" : "bare";
    RunBare(file, std::string(pszCase) + SuffixOf(iSync), iRound, iSync, bDelete, bVacuum);
  }

  void SqliteDefault(int iRound, bool bDelete) {
    constexpr bool kVacuum = true;
    RunBare(CBareFile(NewPath(), BareSync::Default), "sqlite_default", iRound, kSyncFull, bDelete, kVacuum);
  }

  // Lets the loaded component send what it has.
  void Connect() { m_component.Connect(); }

 private:
  static constexpr size_t kRowsBefore = 2;

  std::string NewName() { return "file-" + std::to_string(++m_uFiles); }
  std::string NewPath() { return m_installation.CacheDirectory() + NewName() + ".db"; }

  void Run(const std::string& strCase, int iRound, int iSync, const std::function<void(size_t)>& step) {
    for (size_t i = 0; i < kRowsBefore; ++i) {
      step(i);
    }
    PrintRate(m_pszGroup, strCase, iRound, iSync, m_uRecords, [&] {
      for (size_t i = kRowsBefore; i < m_vecRows.size(); ++i) {
        step(i);
      }
    });
  }

  void RunBare(const CBareFile& file, const std::string& strCase, int iRound, int iSync, bool bDelete, bool bVacuum) {
    Run(strCase, iRound, iSync, [&](size_t i) {
      file.Insert(m_vecRows[i]);
      if (bDelete) {
        file.Delete(m_vecRows[i].u64DataId);
        if (bVacuum && (i + 1) % kDeletesPerVacuum == 0) {
          file.Vacuum();
        }
      }
    });
  }

  const char* m_pszGroup;
  size_t m_uRecords;
  CBenchInstallation m_installation;
  CAcknowledgingDestination m_destination;
  CLoadedComponent m_component;
  std::vector<BareRow> m_vecRows;
  std::vector<CPString> m_vecTexts;
  std::vector<std::string> m_vecPayloads;
  size_t m_uFiles = 0;
  uint32_t m_u32Senders = 0;
  size_t m_uWholeRecords = 0;
};

void RunGroup(const char* pszGroup, const BenchOptions& options, bool bDelete) {
  CSingleRecords records(pszGroup, options, bDelete);
  std::vector<Case> vecCases;
  for (const int iSync : {kSyncFull, kSyncNormal}) {
    vecCases.emplace_back([&, iSync](int iRound) { records.Component(iRound, iSync, bDelete); });
    vecCases.emplace_back([&, iSync](int iRound) { records.Bare(iRound, iSync, bDelete, true); });
    vecCases.emplace_back([&, iSync](int iRound) { records.Whole(iRound, iSync, bDelete); });
    if (bDelete) {
      vecCases.emplace_back([&, iSync](int iRound) { records.Bare(iRound, iSync, bDelete, false); });
    }
  }
  vecCases.emplace_back([&](int iRound) { records.SqliteDefault(iRound, bDelete); });
  if (bDelete) {
    records.Connect();
  }
  // A round is over in a second, and the disk makes its ratios differ by a quarter; more rounds make a median of them.
  constexpr int kTimesTheRounds = 3;
  RunInTurn(options.bQuick ? options.iRounds : options.iRounds * kTimesTheRounds, vecCases);
}

}  // namespace

void RunInserts(const BenchOptions& options) {
  RunGroup("storage_insert", options, false);
}

void RunInsertsAndDeletes(const BenchOptions& options) {
  RunGroup("storage_insert_delete", options, true);
}
