// storage_drain: delete by delete, with a compaction for each hundredth.
#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/storage/bare_sqlite.h"
#include "bench/storage/groups.h"
#include "bench/storage/measure.h"
#include "bench/storage/sample_records.h"
#include "bench/support/loaded_component.h"
#include "cachefile/log_cache_file.h"
#include "platform/storage_sync.h"

namespace {

constexpr size_t kDeletesPerVacuum = 100;

// Seconds of each delete. Every hundredth includes a compaction.
using Seconds = std::vector<double>;

// What the compactions took: each hundredth delete, less the median of those before it in its hundred.
double SecondsOfVacuums(Seconds vecSeconds) {
  double dSum = 0;
  for (size_t i = 0; i + kDeletesPerVacuum <= vecSeconds.size(); i += kDeletesPerVacuum) {
    const auto begin = vecSeconds.begin() + static_cast<Seconds::difference_type>(i);
    const auto last = begin + (kDeletesPerVacuum - 1);
    const auto middle = begin + (kDeletesPerVacuum - 1) / 2;
    std::nth_element(begin, middle, last);
    dSum += *last - *middle;
  }
  return dSum;
}

class CDrain {
 public:
  CDrain(const BenchOptions& options, size_t uRows)
      : m_uRows(uRows), m_strGroup("storage_drain_" + std::to_string(uRows)), m_installation(options.strDirectory, "") {
    std::filesystem::create_directory(m_installation.CacheDirectory());
  }

  void Component(int iRound) const {
    Require(QmSetStorageSync(kSyncFull), "QmSetStorageSync");
    MakeFile();
    CLogCacheFile file;
    file.InitFile(0, CPString(m_installation.CacheDirectory().c_str()), CPString(kSampleSender));
    Drain("component_full", iRound, true, [&](size_t i) { Require(file.DeleteCacheData(SampleDataId(i)), "delete"); });
  }

  void Bare(int iRound, bool bVacuum) const {
    const CBareFile file = MakeFile();
    Drain(bVacuum ? "bare_full" : "bare_without_vacuum_full", iRound, bVacuum, [&](size_t i) {
      file.Delete(SampleDataId(i));
      if (bVacuum && i % kDeletesPerVacuum == 0) {
        file.Vacuum();
      }
    });
  }

 private:
  // A new file with all rows.
  CBareFile MakeFile() const {
    const std::string strPath = m_installation.CacheDirectory() + kSampleSender + ".db";
    for (const char* pszSuffix : {"", "-wal", "-shm"}) {
      std::filesystem::remove(strPath + pszSuffix);
    }
    CBareFile file(strPath, BareSync::Full);
    constexpr size_t kBatch = 500;
    for (size_t i = 0; i < m_uRows; i += kBatch) {
      const std::vector<BareRow> vecRows = SampleRows(i + 1, std::min(kBatch, m_uRows - i));
      file.Insert(vecRows.data(), vecRows.size());
    }
    return file;
  }

  void Drain(const char* pszCase, int iRound, bool bVacuum, const std::function<void(size_t)>& deleteRow) const {
    Seconds vecSeconds;
    vecSeconds.reserve(m_uRows);
    const double dAll = SecondsOf([&] {
      for (size_t i = 1; i <= m_uRows; ++i) {
        vecSeconds.push_back(SecondsOf([&] { deleteRow(i); }));
      }
    });
    const ResultGroup group{m_strGroup.c_str(), kSurvivesPowerCut};
    group.Print(pszCase, iRound, "duration", "s", dAll);
    group.Print(pszCase, iRound, "rate", "records/s", static_cast<double>(m_uRows) / dAll);
    if (bVacuum) {
      group.Print(pszCase, iRound, "vacuum_share", "1", SecondsOfVacuums(vecSeconds) / dAll);
    }
  }

  size_t m_uRows;
  std::string m_strGroup;
  CBenchInstallation m_installation;
};

}  // namespace

void RunDrain(const BenchOptions& options) {
  constexpr size_t kSmallFile = 10000;
  constexpr size_t kLargeFile = 100000;
  constexpr int kMostRounds = 3;
  const CDrain drain(options, kSmallFile);
  if (options.bQuick) {
    drain.Component(1);
    return;
  }
  RunInTurn(std::min(options.iRounds, kMostRounds),
            {[&](int iRound) { drain.Component(iRound); }, [&](int iRound) { drain.Bare(iRound, true); },
             [&](int iRound) { drain.Bare(iRound, false); }});
  CDrain(options, kLargeFile).Component(1);
}
