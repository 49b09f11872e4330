#include "tools/qmcache/scan.h"

#include <fmt/format.h>

#include <numeric>
#include <vector>

#include "tools/qmcache/exit_codes.h"
#include "tools/qmcache/output.h"

namespace {

struct Walk {
  const Options& options;
  uint64_t u64First;
  Troubles& troubles;
  CProgress& progress;
  const std::function<void(const CacheFileEntry&, const CacheRecord&)>& fnRow;
};

void TakeRow(const CacheFileEntry& entry, const StoredRow& row, Walk& walk) {
  walk.progress.Advance(row.data ? row.data->size() : 0);
  const DecodedRow decoded = DecodeRow(row, entry.strSender);
  if (!decoded.record) {
    walk.troubles.bDamage = true;
    Complain(fmt::format("{}: row {} holds no record: {}", entry.strPath,
                         DataIdText(static_cast<uint64_t>(row.i64RowId)), fmt::join(decoded.vecFaults, ", ")));
    return;
  }
  if (walk.options.filter.TakesPriority(decoded.record->iPriv)) {
    walk.fnRow(entry, *decoded.record);
  }
}

void WalkFile(const CacheFileEntry& entry, Walk& walk) {
  CCacheReader reader(entry.strPath);
  FileState state = reader.Open();
  if (walk.u64First > 0) {
    reader.Seek(static_cast<int64_t>(walk.u64First));
  }
  std::vector<StoredRow> vecRows;
  std::vector<std::string> vecUnreadable;
  bool bMore = state == FileState::Sound;
  while (bMore) {
    state = reader.Next(CCacheReader::Columns::All, vecRows, vecUnreadable);
    for (const StoredRow& row : vecRows) {
      TakeRow(entry, row, walk);
    }
    for (const std::string& strRow : vecUnreadable) {
      walk.troubles.bDamage = true;
      Complain(entry.strPath + ": " + strRow);
    }
    bMore = state == FileState::Sound && (!vecRows.empty() || !vecUnreadable.empty());
  }
  if (state != FileState::Sound && state != FileState::Empty) {
    walk.troubles.Add(state);
    Complain(entry.strPath + " " + reader.Reason());
  }
}

}  // namespace

void Troubles::Add(FileState state) {
  bDamage = bDamage || state == FileState::Damaged;
  bFailed = bFailed || state == FileState::Unreadable;
}

int Troubles::ExitCode(bool bNothing) const {
  if (bFailed) {
    return kExitFailed;
  }
  if (bDamage) {
    return kExitDamage;
  }
  return bNothing ? kExitNothing : kExitWell;
}

uint64_t BytesOf(const CacheDirectory& directory) {
  return std::accumulate(directory.vecFiles.begin(), directory.vecFiles.end(), uint64_t{0},
                         [](uint64_t u64, const CacheFileEntry& entry) { return u64 + entry.u64Bytes; });
}

void ForEachRecord(const Options& options, bool bProgress, Troubles& troubles,
                   const std::function<void(const CacheFileEntry&, const CacheRecord&)>& fnRow) {
  const CacheDirectory directory = ListCacheDirectory(options.installation.strCacheDirectory);
  CProgress progress(BytesOf(directory), bProgress && !options.bQuiet);
  Walk walk{options, FirstWantedId(options.filter, directory.vecFiles), troubles, progress, fnRow};
  for (const CacheFileEntry& entry : directory.vecFiles) {
    progress.Begin(entry.strName, entry.u64Bytes);
    if (options.filter.TakesSender(entry.strSender)) {
      WalkFile(entry, walk);
    }
  }
}
