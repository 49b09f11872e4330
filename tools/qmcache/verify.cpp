// Checks every file, and decodes every row of it.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <vector>

#include "tools/qmcache/log_walk.h"
#include "tools/qmcache/output.h"
#include "tools/qmcache/printable.h"
#include "tools/qmcache/scan.h"
#include "tools/qmcache/verbs.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMostFaults = 100;  // named of one file; all are counted

struct Verdict {
  FileState state = FileState::Sound;
  uint64_t u64Rows = 0;
  uint64_t u64Faulty = 0;  // rows that cannot be read or decoded, or contradict themselves
  std::vector<std::string> vecProblems;
};

const char* VerdictName(FileState state) {
  switch (state) {
    case FileState::Sound:
      return "sound";
    case FileState::Empty:
      return "empty";
    case FileState::Damaged:
      return "damaged";
    case FileState::Unreadable:
      break;
  }
  return "unreadable";
}

void AddFault(Verdict& verdict, const std::string& strFault) {
  ++verdict.u64Faulty;
  verdict.state = FileState::Damaged;
  if (verdict.vecProblems.size() < kMostFaults) {
    verdict.vecProblems.push_back(strFault);
  }
}

Verdict VerifyFile(const CacheFileEntry& entry, CProgress& progress) {
  Verdict verdict;
  // Before SQLite has a lock on the file, which closing another descriptor of it would drop.
  const bool bLogDamaged = entry.bRegular && IsLogDamaged(entry.strPath);
  CCacheReader reader(entry.strPath);
  verdict.state = reader.Open();
  if (verdict.state != FileState::Sound) {
    verdict.vecProblems.push_back(reader.Reason());
    return verdict;
  }
  verdict.state = reader.Check(verdict.vecProblems);
  if (bLogDamaged && verdict.state != FileState::Unreadable) {
    verdict.state = FileState::Damaged;
    verdict.vecProblems.emplace_back("the write-ahead log is damaged: what stands behind the damage is not seen");
  }
  std::vector<StoredRow> vecRows;
  std::vector<std::string> vecUnreadable;
  bool bMore = verdict.state != FileState::Unreadable;
  while (bMore) {
    const FileState state = reader.Next(CCacheReader::Columns::All, vecRows, vecUnreadable);
    for (const StoredRow& row : vecRows) {
      progress.Advance(row.data ? row.data->size() : 0);
      ++verdict.u64Rows;
      const DecodedRow decoded = DecodeRow(row, entry.strSender);
      if (!decoded.vecFaults.empty()) {
        AddFault(verdict, fmt::format("row {}: {}", DataIdText(static_cast<uint64_t>(row.i64RowId)),
                                      fmt::join(decoded.vecFaults, ", ")));
      }
    }
    for (const std::string& strRow : vecUnreadable) {
      AddFault(verdict, strRow);
    }
    if (state != FileState::Sound) {
      verdict.state = state;
      verdict.vecProblems.push_back(reader.Reason());
    }
    bMore = state == FileState::Sound && (!vecRows.empty() || !vecUnreadable.empty());
  }
  return verdict;
}

}  // namespace

int RunVerify(const Options& options) {
  const CacheDirectory directory = ListCacheDirectory(options.installation.strCacheDirectory);
  COutput output;
  Troubles troubles;
  Json json = Json::array();
  CProgress progress(BytesOf(directory), !options.bQuiet);
  for (const CacheFileEntry& entry : directory.vecFiles) {
    progress.Begin(entry.strName, entry.u64Bytes);
    const Verdict verdict = VerifyFile(entry, progress);
    troubles.Add(verdict.state);
    if (options.bJson) {
      json.push_back({{"file", entry.strPath},
                      {"state", VerdictName(verdict.state)},
                      {"rows", verdict.u64Rows},
                      {"faulty_rows", verdict.u64Faulty},
                      {"problems", verdict.vecProblems}});
      continue;
    }
    CProgress::TakeAway();
    output.Line(fmt::format("{}: {}, {} rows, {} faulty", Printable(entry.strPath), VerdictName(verdict.state),
                            verdict.u64Rows, verdict.u64Faulty));
    for (const std::string& strProblem : verdict.vecProblems) {
      output.Line("  " + Printable(strProblem));
    }
  }
  CProgress::TakeAway();
  if (options.bJson) {
    output.Line(json.dump(2, ' ', true, Json::error_handler_t::replace));
  }
  output.Finish();
  return troubles.ExitCode();
}
