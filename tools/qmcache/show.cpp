// One record, with all that is known of it.
#include <fmt/format.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <vector>

#include "host/link/record_line.h"
#include "tools/qmcache/output.h"
#include "tools/qmcache/printable.h"
#include "tools/qmcache/record_json.h"
#include "tools/qmcache/scan.h"
#include "tools/qmcache/time_text.h"
#include "tools/qmcache/verbs.h"

namespace {

constexpr int32_t kPublicPriv = 10;

void ShowForPeople(COutput& output, const CacheFileEntry& entry, const StoredRow& row, const DecodedRow& decoded) {
  const auto fnLine = [&output](const char* pszName, const std::string& strValue) {
    output.Line(fmt::format("{:<9}{}", pszName, Printable(strValue)));
  };
  const auto u64DataId = static_cast<uint64_t>(row.i64RowId);
  fnLine("dataid", DataIdText(u64DataId));
  fnLine("file", entry.strPath);
  fnLine("run", "taken by the component that was started at " + TimeText(RunOf(u64DataId)));
  if (decoded.record) {
    const CacheRecord& record = *decoded.record;
    fnLine("sender", record.strGuid);
    fnLine("priority", fmt::format("{}, {} ({})", PriorityName(record.iPriv),
                                   record.iPriv >= kPublicPriv ? "public" : "private", record.iPriv));
    fnLine("kind", fmt::format("{} ({})", KindName(record.iMsgType), record.iMsgType));
    fnLine("product", record.strProduct);
    fnLine("combo", record.strCombo);
    fnLine("stored", row.dataType.value_or(0) == 1 ? "as base64" : "as text");
    fnLine("bytes", fmt::format("{}", record.strMessage.size()));
  }
  for (const std::string& strFault : decoded.vecFaults) {
    fnLine("fault", strFault);
  }
  if (decoded.record) {
    fnLine("message", decoded.record->strMessage);
  } else if (row.data) {
    fnLine("data", *row.data);
  }
}

void ShowAsJson(COutput& output, const CacheFileEntry& entry, const StoredRow& row, const DecodedRow& decoded) {
  CRecordJson json;
  CacheRecord record = decoded.record.value_or(CacheRecord{});
  record.u64DataId = static_cast<uint64_t>(row.i64RowId);
  json.Append(output.Buffer(), record, {{"file", entry.strPath}, {"started", TimeText(RunOf(record.u64DataId))}});
  // The faults are a list, which the record's own fields know none of.
  output.Buffer().pop_back();
  const auto faults = nlohmann::ordered_json(decoded.vecFaults);
  output.Line(",\"decoded\":" + std::string(decoded.record ? "true" : "false") +
              ",\"faults\":" + faults.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "}");
}

}  // namespace

int RunShow(const Options& options) {
  const CacheDirectory directory = ListCacheDirectory(options.installation.strCacheDirectory);
  COutput output;
  Troubles troubles;
  bool bFound = false;
  const auto i64Wanted = static_cast<int64_t>(options.u64DataId);
  for (const CacheFileEntry& entry : directory.vecFiles) {
    CCacheReader reader(entry.strPath);
    FileState state = reader.Open();
    std::vector<StoredRow> vecRows;
    std::vector<std::string> vecUnreadable;
    if (state == FileState::Sound) {
      reader.Seek(i64Wanted);
      state = reader.NextRow(vecRows, vecUnreadable);
    }
    if (state != FileState::Sound && state != FileState::Empty) {
      troubles.Add(state);
      Complain(entry.strPath + " " + reader.Reason());
    }
    if (!vecRows.empty() && vecRows.front().i64RowId == i64Wanted) {
      if (bFound && !options.bJson) {
        output.Line("");
      }
      bFound = true;
      const DecodedRow decoded = DecodeRow(vecRows.front(), entry.strSender);
      troubles.bDamage = troubles.bDamage || !decoded.vecFaults.empty();
      (options.bJson ? ShowAsJson : ShowForPeople)(output, entry, vecRows.front(), decoded);
    }
  }
  output.Finish();
  if (!bFound) {
    Complain("no file holds a record " + DataIdText(options.u64DataId));
  }
  return troubles.ExitCode(!bFound);
}
