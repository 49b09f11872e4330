// Brings out the records of a damaged cache file or of its backup.
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <unordered_set>

#include "db/wal_vfs.h"
#include "tools/qmcache/cache_writer.h"
#include "tools/qmcache/exit_codes.h"
#include "tools/qmcache/host_absence.h"
#include "tools/qmcache/interruption.h"
#include "tools/qmcache/log_walk.h"
#include "tools/qmcache/output.h"
#include "tools/qmcache/output_guard.h"
#include "tools/qmcache/page_file.h"
#include "tools/qmcache/page_salvage.h"
#include "tools/qmcache/private_copy.h"
#include "tools/qmcache/record_json.h"
#include "tools/qmcache/verbs.h"

namespace {

// What happened before the pages were looked at.
struct Preparation {
  bool bCutShort = false;     // a backup that cannot be unpacked to its end
  uint64_t u64LostBytes = 0;  // that the disk does not give
  bool bChanged = false;      // it was written to while it was copied
  bool bLogLeftOut = false;   // the write-ahead log could not be brought in, or not to its end
  std::string strKeptLog;     // where it is then
  LogWalk log;
};

bool IsGzip(const std::string& strFile) {
  unsigned char abStart[2] = {};
  const int iFile = OpenRegularFile(strFile);
  const bool bRead = iFile >= 0 && pread(iFile, abStart, sizeof(abStart), 0) == ssize_t{sizeof(abStart)};
  if (iFile >= 0) {
    close(iFile);
  }
  return bRead && abStart[0] == 0x1F && abStart[1] == 0x8B;
}

uint64_t SizeOf(const std::string& strFile) {
  struct stat info {};
  return stat(strFile.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

// Brings the copy's log and journal into it, as far as SQLite can. False when there is a log that it cannot.
bool BringLogIn(const std::string& strCopy) {
  struct stat log {};
  struct stat journal {};
  const bool bLog = stat((strCopy + "-wal").c_str(), &log) == 0 && log.st_size > 0;
  if (!bLog && stat((strCopy + "-journal").c_str(), &journal) != 0) {
    return true;
  }
  if (WalVfsName() == nullptr) {
    return false;  // SQLite's own would delete what a journal names
  }
  sqlite3* pDb = nullptr;
  int iResult = sqlite3_open_v2(strCopy.c_str(), &pDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, WalVfsName());
  if (iResult == SQLITE_OK) {
    sqlite3_db_config(pDb, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(pDb, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    // Where the journal names a further file the first read fails once it has undone what the journal says.
    static_cast<void>(sqlite3_exec(pDb, "PRAGMA schema_version", nullptr, nullptr, nullptr));
    iResult = sqlite3_exec(pDb, "PRAGMA schema_version", nullptr, nullptr, nullptr);
  }
  int iFrames = 0;
  int iDone = 0;
  if (iResult == SQLITE_OK && bLog) {
    iResult = sqlite3_wal_checkpoint_v2(pDb, nullptr, SQLITE_CHECKPOINT_TRUNCATE, &iFrames, &iDone);
  }
  sqlite3_close(pDb);
  return iResult == SQLITE_OK && iFrames == iDone;
}

bool Prepare(const std::string& strFile, CPrivateCopy& copy, Preparation& preparation, std::string& strError) {
  if (IsGzip(strFile)) {
    return copy.Unpack(strFile, preparation.bCutShort, strError);
  }
  if (!copy.TakeWhatIsReadable(strFile, preparation.u64LostBytes, preparation.bChanged, strError)) {
    return false;
  }
  CPageFile file;
  if (WalkLog(copy.Path() + "-wal", file.Open(copy.Path(), strError) ? file.PageSize() : 0, preparation.log) &&
      preparation.log.bDamaged) {
    preparation.strKeptLog = copy.KeepLog(strError);
    if (preparation.strKeptLog.empty()) {
      return false;
    }
  }
  preparation.bLogLeftOut = !BringLogIn(copy.Path()) || preparation.log.bDamaged;
  return true;
}

// Writes the log's pages that SQLite did not take to where they belong in the copy. False when there is none.
bool PutPagesIn(const Preparation& preparation, const std::string& strCopy) {
  if (preparation.strKeptLog.empty()) {
    return false;
  }
  std::ifstream log(preparation.strKeptLog, std::ios::binary);
  std::fstream file(strCopy, std::ios::binary | std::ios::in | std::ios::out);
  const uint32_t uPageSize = preparation.log.uPageSize;
  // A page that cannot be one of this file would make it as long as it likes.
  const uint64_t u64Most = SizeOf(strCopy) / uPageSize + preparation.log.vecBehind.size();
  std::string strPage(uPageSize, '\0');
  for (const LogFrame& frame : preparation.log.vecBehind) {
    EndIfInterrupted();
    if (frame.uPage <= u64Most && log.seekg(static_cast<std::streamoff>(frame.u64At)) &&
        log.read(strPage.data(), uPageSize)) {
      file.seekp((static_cast<std::streamoff>(frame.uPage) - 1) * uPageSize).write(strPage.data(), uPageSize);
    }
  }
  if (!log || !file.flush()) {
    throw std::runtime_error("cannot write the temporary file " + strCopy);
  }
  return true;
}

struct Summary {
  SalvageReport report;
  Preparation preparation;
  uint64_t u64NoSender = 0;  // records that name no sender, and go to no file
  uint64_t u64Written = 0;
  uint64_t u64AlreadyThere = 0;

  bool IsWhole() const {
    return report.IsWhole() && !preparation.bCutShort && preparation.u64LostBytes == 0 && !preparation.bLogLeftOut &&
           !preparation.bChanged && u64NoSender == 0;
  }
};

std::string AsJson(const Summary& summary, bool bIntoCache) {
  const SalvageReport& report = summary.report;
  nlohmann::ordered_json json = {{"records", report.u64Records},
                                 {"repeated", report.u64Repeated},
                                 {"broken_rows", report.u64BrokenRows},
                                 {"pages", report.u64Pages},
                                 {"missing_pages", report.u64MissingPages},
                                 {"lost_pages", report.u64LostPages},
                                 {"header_damaged", report.bHeaderDamaged},
                                 {"free_list_damaged", report.bFreeListDamaged},
                                 {"backup_cut_short", summary.preparation.bCutShort},
                                 {"unreadable_bytes", summary.preparation.u64LostBytes},
                                 {"log_left_out", summary.preparation.bLogLeftOut},
                                 {"changed_while_copied", summary.preparation.bChanged},
                                 {"whole", summary.IsWhole()}};
  if (bIntoCache) {
    json["written"] = summary.u64Written;
    json["already_there"] = summary.u64AlreadyThere;
    json["without_sender"] = summary.u64NoSender;
  }
  return json.dump();
}

std::string AsText(const Summary& summary, bool bIntoCache) {
  const SalvageReport& report = summary.report;
  std::string strText = fmt::format("{} records read from {} pages", report.u64Records, report.u64Pages);
  const auto fnCount = [&strText](uint64_t u64, const char* pszWhat) {
    if (u64 > 0) {
      strText += fmt::format("\n{} {}", u64, pszWhat);
    }
  };
  const auto fnTell = [&strText](bool b, const char* pszWhat) { strText += b ? fmt::format("\n{}", pszWhat) : ""; };
  if (bIntoCache) {
    strText += fmt::format("\n{} written, {} were there already", summary.u64Written, summary.u64AlreadyThere);
    fnCount(summary.u64NoSender, "name no sender and were left out");
  }
  fnCount(report.u64Repeated, "copies of records that had come before were left out");
  fnCount(report.u64BrokenRows, "rows are broken and lost");
  fnCount(report.u64LostPages, "pages hold nothing that can be read");
  fnCount(report.u64MissingPages, "pages are missing at the end of the file");
  fnCount(summary.preparation.u64LostBytes, "bytes cannot be read from the disk");
  fnTell(report.bHeaderDamaged, "the file's header is damaged");
  fnTell(report.bFreeListDamaged,
         "the list of free pages is damaged: records that had been delivered may be among these");
  fnTell(summary.preparation.bCutShort, "the backup cannot be unpacked to its end");
  fnTell(
      summary.preparation.bChanged,
      "the file was written to while it was copied: records may be missing that are in it, and what is told of damage "
      "may be wrong; try again, or stop the host");
  fnTell(
      summary.preparation.bLogLeftOut,
      "the write-ahead log beside the file is damaged: records that stood in it may be missing, and ones that had been "
      "delivered may be among these");
  fnTell(summary.IsWhole(), "the file is whole");
  return strText;
}

void Salvage(const Options& options, const CPrivateCopy& copy, COutput* pOutput, Summary& summary) {
  CCacheWriter writer(options.installation.strCacheDirectory);
  CRecordJson json;
  CProgress progress(SizeOf(copy.Path()), !options.bQuiet && (pOutput == nullptr || !pOutput->IsTerminal()));
  progress.Begin(options.strDamaged, SizeOf(copy.Path()));
  std::string strError;
  const auto fnTake = [&](const StoredRow& row, const CacheRecord& record) {
    if (pOutput != nullptr) {
      json.Append(pOutput->Buffer(), record);
      pOutput->Line("");
    } else if (IsSenderId(record.strGuid) && row.product && row.combo) {
      writer.Add(row, record);
    } else {
      ++summary.u64NoSender;
    }
  };
  std::unordered_set<uint64_t> setIds;
  if (!SalvagePages(copy.Path(), progress, fnTake, setIds, summary.report, strError)) {
    throw std::runtime_error(strError);
  }
  if (PutPagesIn(summary.preparation, copy.Path())) {
    // Most records stand in both; what else is wrong has been counted.
    SalvageReport again;
    progress.Begin(options.strDamaged, SizeOf(copy.Path()));
    if (!SalvagePages(copy.Path(), progress, fnTake, setIds, again, strError)) {
      throw std::runtime_error(strError);
    }
    summary.report.u64Records += again.u64Records;
  }
  if (pOutput != nullptr) {
    pOutput->Finish();
  } else {
    writer.Finish();
    summary.u64Written = writer.Written();
    summary.u64AlreadyThere = writer.AlreadyThere();
  }
}

// Whether strOutput is the file itself, under whatever name, or its log or journal.
bool IsPartOf(const std::string& strOutput, const std::string& strFile) {
  struct stat output {};
  if (strOutput == "-" || stat(strOutput.c_str(), &output) != 0) {
    return false;
  }
  constexpr std::array<const char*, 4> kParts = {"", "-wal", "-shm", "-journal"};
  return std::any_of(kParts.begin(), kParts.end(), [&](const char* pszPart) {
    struct stat part {};
    return stat((strFile + pszPart).c_str(), &part) == 0 && part.st_dev == output.st_dev &&
           part.st_ino == output.st_ino;
  });
}

}  // namespace

int RunSalvage(const Options& options) {
  std::string strError;
  if (IsPartOf(options.strOutput, options.strDamaged)) {
    strError = options.strOutput + " is what is to be salvaged; it is not written over";
  } else {
    strError = ObjectionTo(options.strOutput, options.installation.strCacheDirectory);
  }
  if (!strError.empty()) {
    Complain(strError);
    return kExitFailed;
  }
  CHostAbsence absence;
  if (options.bIntoCache && !absence.Ensure(options.installation, strError)) {
    Complain(strError);
    return kExitFailed;
  }
  CPrivateCopy copy;
  Summary summary;
  {
    CProgress progress(SizeOf(options.strDamaged), !options.bQuiet);
    progress.Begin("copying " + options.strDamaged, SizeOf(options.strDamaged));
    if (!Prepare(options.strDamaged, copy, summary.preparation, strError)) {
      Complain(strError);
      return kExitFailed;
    }
  }
  std::optional<COutput> output;
  if (!options.bIntoCache) {
    output.emplace(options.strOutput);
  }
  Salvage(options, copy, output ? &*output : nullptr, summary);
  const std::string strSummary =
      options.bJson ? AsJson(summary, options.bIntoCache) : AsText(summary, options.bIntoCache);
  if (!output || !output->IsStandardOutput()) {
    COutput standard;
    standard.Line(strSummary);
    standard.Finish();
  } else {
    fmt::print(stderr, "{}\n", strSummary);  // standard output has the records
  }
  return summary.IsWhole() ? kExitWell : kExitDamage;
}
