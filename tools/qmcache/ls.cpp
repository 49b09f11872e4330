// The cache files, one a line.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "host/link/record_line.h"
#include "tools/qmcache/output.h"
#include "tools/qmcache/printable.h"
#include "tools/qmcache/scan.h"
#include "tools/qmcache/size_text.h"
#include "tools/qmcache/time_text.h"
#include "tools/qmcache/verbs.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr std::array<const char*, 5> kPriorities = {"real", "high", "normal", "low", "other"};
constexpr std::array<const char*, 5> kHeadings = {"REAL", "HIGH", "NORMAL", "LOW", "OTHER"};

constexpr uint64_t kBytesARow = 512;  // roughly, of the file, for the progress bar

struct Listed {
  CacheFileEntry entry;
  FileState state = FileState::Sound;
  std::string strReason;
  uint64_t u64Rows = 0;
  std::array<uint64_t, kPriorities.size()> auByPriority{};
  uint64_t u64Oldest = 0;
  uint64_t u64Newest = 0;
};

const char* StateName(FileState state) {
  switch (state) {
    case FileState::Sound:
      return "readable";
    case FileState::Empty:
      return "empty";
    case FileState::Damaged:
      return "damaged";
    case FileState::Unreadable:
      break;
  }
  return "unreadable";
}

void Count(const StoredRow& row, Listed& listed) {
  const int64_t i64Priv = row.priv.value_or(-1);
  const bool bKnown = i64Priv >= 0 && i64Priv <= std::numeric_limits<int32_t>::max();
  const std::string_view svName = bKnown ? PriorityName(static_cast<int32_t>(i64Priv)) : "other";
  const auto it = std::find(kPriorities.begin(), kPriorities.end(), svName);
  ++listed.auByPriority[static_cast<size_t>(std::min(it, kPriorities.end() - 1) - kPriorities.begin())];
  const auto u64Id = static_cast<uint64_t>(row.i64RowId);
  listed.u64Oldest = listed.u64Rows == 0 ? u64Id : listed.u64Oldest;
  listed.u64Newest = u64Id;
  ++listed.u64Rows;
}

Listed ListFile(const CacheFileEntry& entry, CProgress& progress) {
  Listed listed;
  listed.entry = entry;
  CCacheReader reader(entry.strPath);
  listed.state = reader.Open();
  std::vector<StoredRow> vecRows;
  std::vector<std::string> vecUnreadable;
  bool bMore = listed.state == FileState::Sound;
  while (bMore) {
    const FileState state = reader.Next(CCacheReader::Columns::KeyAndPriority, vecRows, vecUnreadable);
    for (const StoredRow& row : vecRows) {
      Count(row, listed);
    }
    progress.Advance(vecRows.size() * kBytesARow);
    bMore = state == FileState::Sound && (!vecRows.empty() || !vecUnreadable.empty());
    listed.state = state != FileState::Sound ? state : listed.state;
    if (!vecUnreadable.empty()) {
      listed.state = FileState::Damaged;
      listed.strReason = vecUnreadable.front();
    }
  }
  if (listed.strReason.empty() && listed.state != FileState::Sound) {
    listed.strReason = reader.Reason();
  }
  return listed;
}

Json EndOf(uint64_t u64DataId) {
  return {{"dataid", DataIdText(u64DataId)}, {"started", TimeText(RunOf(u64DataId))}};
}

Json ToJson(const Listed& listed) {
  Json json = {{"file", listed.entry.strPath},          {"sender", listed.entry.strSender},
               {"state", StateName(listed.state)},      {"bytes", listed.entry.u64Bytes},
               {"log_bytes", listed.entry.u64LogBytes}, {"rows", listed.u64Rows}};
  for (size_t i = 0; i < kPriorities.size(); ++i) {
    json["by_priority"][kPriorities[i]] = listed.auByPriority[i];
  }
  json["oldest"] = listed.u64Rows > 0 ? EndOf(listed.u64Oldest) : Json();
  json["newest"] = listed.u64Rows > 0 ? EndOf(listed.u64Newest) : Json();
  if (!listed.strReason.empty()) {
    json["reason"] = listed.strReason;
  }
  return json;
}

void PrintJson(COutput& output, const std::vector<Listed>& vecListed, const CacheDirectory& directory) {
  Json json = {{"files", Json::array()}, {"backups", Json::array()}};
  for (const Listed& listed : vecListed) {
    json["files"].push_back(ToJson(listed));
  }
  for (const BackupEntry& backup : directory.vecBackups) {
    json["backups"].push_back(
        {{"file", backup.strPath}, {"bytes", backup.u64Bytes}, {"written", TimeText(backup.i64Time)}});
  }
  output.Line(json.dump(2, ' ', true, Json::error_handler_t::replace));
}

using Cells = std::vector<std::string>;

Cells CellsOf(const std::string& strSender, const Listed& listed, size_t uPriorities) {
  Cells cells = {strSender, fmt::format("{}", listed.u64Rows),
                 SizeText(listed.entry.u64Bytes + listed.entry.u64LogBytes)};
  for (size_t i = 0; i < uPriorities; ++i) {
    cells.push_back(fmt::format("{}", listed.auByPriority[i]));
  }
  cells.push_back(listed.u64Rows > 0 ? TimeText(RunOf(listed.u64Oldest)) : "-");
  cells.push_back(listed.u64Rows > 0 ? TimeText(RunOf(listed.u64Newest)) : "-");
  return cells;
}

void PrintTable(COutput& output, const std::vector<Cells>& vecLines) {
  std::vector<size_t> vecWidths(vecLines.front().size());
  for (const Cells& cells : vecLines) {
    for (size_t i = 0; i < cells.size(); ++i) {
      vecWidths[i] = std::max(vecWidths[i], cells[i].size());
    }
  }
  for (const Cells& cells : vecLines) {
    std::string strLine = fmt::format("{:<{}}", cells[0], vecWidths[0]);
    for (size_t i = 1; i < cells.size(); ++i) {
      strLine += fmt::format("  {:>{}}", cells[i], vecWidths[i]);
    }
    output.Line(strLine);
  }
}

void PrintForPeople(COutput& output, const std::vector<Listed>& vecListed, const CacheDirectory& directory) {
  Listed total;
  for (const Listed& listed : vecListed) {
    total.u64Rows += listed.u64Rows;
    total.entry.u64Bytes += listed.entry.u64Bytes + listed.entry.u64LogBytes;
    for (size_t i = 0; i < kPriorities.size(); ++i) {
      total.auByPriority[i] += listed.auByPriority[i];
    }
    if (listed.u64Rows > 0) {
      total.u64Oldest = total.u64Oldest == 0 ? listed.u64Oldest : std::min(total.u64Oldest, listed.u64Oldest);
      total.u64Newest = std::max(total.u64Newest, listed.u64Newest);
    }
  }
  const size_t uPriorities = total.auByPriority.back() > 0 ? kPriorities.size() : kPriorities.size() - 1;
  std::vector<Cells> vecLines = {{"SENDER", "ROWS", "BYTES"}};
  vecLines[0].insert(vecLines[0].end(), kHeadings.begin(), kHeadings.begin() + static_cast<ptrdiff_t>(uPriorities));
  vecLines[0].insert(vecLines[0].end(), {"OLDEST", "NEWEST"});
  for (const Listed& listed : vecListed) {
    vecLines.push_back(CellsOf(Printable(listed.entry.strSender), listed, uPriorities));
  }
  vecLines.push_back(CellsOf(fmt::format("{} files", vecListed.size()), total, uPriorities));
  PrintTable(output, vecLines);
  for (const BackupEntry& backup : directory.vecBackups) {
    output.Line(fmt::format("backup of a damaged file: {}, {}, of {}", Printable(backup.strName),
                            SizeText(backup.u64Bytes), TimeText(backup.i64Time)));
  }
}

}  // namespace

int RunLs(const Options& options) {
  const CacheDirectory directory = ListCacheDirectory(options.installation.strCacheDirectory);
  std::vector<Listed> vecListed;
  Troubles troubles;
  {
    CProgress progress(BytesOf(directory), !options.bQuiet);
    for (const CacheFileEntry& entry : directory.vecFiles) {
      progress.Begin(entry.strName, entry.u64Bytes);
      vecListed.push_back(ListFile(entry, progress));
      troubles.Add(vecListed.back().state);
    }
  }
  COutput output;
  if (options.bJson) {
    PrintJson(output, vecListed, directory);
  } else {
    PrintForPeople(output, vecListed, directory);
  }
  output.Finish();
  for (const Listed& listed : vecListed) {
    if (!listed.strReason.empty()) {
      Complain(listed.entry.strPath + " " + listed.strReason);
    }
  }
  return troubles.ExitCode();
}
