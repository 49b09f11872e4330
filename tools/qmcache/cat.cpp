// Prints the records, and writes them for qmsend.
#include <fmt/format.h>

#include <iterator>

#include "host/link/record_line.h"
#include "tools/qmcache/exit_codes.h"
#include "tools/qmcache/output.h"
#include "tools/qmcache/output_guard.h"
#include "tools/qmcache/printable.h"
#include "tools/qmcache/record_json.h"
#include "tools/qmcache/scan.h"
#include "tools/qmcache/verbs.h"

namespace {

constexpr int32_t kPublicPriv = 10;

void AppendForPeople(std::string& strOut, const CacheRecord& record) {
  fmt::format_to(std::back_inserter(strOut), "{} {:<6} {} {} {} {} {}", DataIdText(record.u64DataId),
                 PriorityName(record.iPriv), record.iPriv >= kPublicPriv ? "public " : "private",
                 KindName(record.iMsgType), Printable(record.strGuid),
                 Printable(record.strProduct + "/" + record.strCombo), Printable(record.strMessage));
}

int Print(const Options& options, COutput& output, bool bJson, bool bProgress, uint64_t& u64Count) {
  Troubles troubles;
  CRecordJson json;
  u64Count = 0;
  ForEachRecord(options, bProgress, troubles, [&](const CacheFileEntry& /*entry*/, const CacheRecord& record) {
    ++u64Count;
    if (bJson) {
      json.Append(output.Buffer(), record);
    } else {
      AppendForPeople(output.Buffer(), record);
    }
    output.Line("");
  });
  if (u64Count > 0 || !(troubles.bDamage || troubles.bFailed)) {
    output.Finish();
  }
  return troubles.ExitCode(u64Count == 0 && !options.filter.IsEmpty());
}

}  // namespace

int RunCat(const Options& options) {
  COutput output;
  uint64_t u64Count = 0;
  // Among lines on the same terminal a bar would only be in the way.
  return Print(options, output, options.bJson, !output.IsTerminal(), u64Count);
}

int RunExport(const Options& options) {
  if (const std::string strObjection = ObjectionTo(options.strOutput, options.installation.strCacheDirectory);
      !strObjection.empty()) {
    Complain(strObjection);
    return kExitFailed;
  }
  COutput output(options.strOutput);
  uint64_t u64Count = 0;
  const int iExitCode = Print(options, output, true, !output.IsTerminal(), u64Count);
  if (!output.IsStandardOutput()) {
    const char* pszText = output.IsFinished() ? "{} records written to {}" : "{} records, {} is left as it was";
    COutput summary;
    summary.Line(options.bJson ? fmt::format(R"({{"records":{}}})", u64Count)
                               : fmt::format(fmt::runtime(pszText), u64Count, Printable(options.strOutput)));
    summary.Finish();
  }
  return iExitCode;
}
