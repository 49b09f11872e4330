#include "tools/qmcache/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <ctime>
#include <iostream>
#include <utility>

#include "tools/qmcache/exit_codes.h"
#include "tools/qmcache/time_text.h"

namespace {

constexpr char kDescription[] =
    "Looks into the cache files of the log cache: what waits there, whether it is sound, and what can be saved.\n"
    "\n"
    "Reads only, and may be used at any time beside a running host; 'salvage --into-cache' alone writes to the cache\n"
    "and wants the host stopped.";

constexpr char kFooter[] =
    "Every verb has its own --help.\n"
    "\n"
    "Exit status: 0 all is well, 1 something is damaged or lost, 2 wrong usage, 3 nothing matched, 4 something could\n"
    "not be read or written or was refused, 128 and the signal's number when interrupted (141: the reader of the\n"
    "output has gone).";

constexpr char kRecordFooter[] =
    "A record is a line of JSON: dataid, priority, public, kind, priv, msgtype, guid (the sender), product, combo,\n"
    "message; a text that is not valid UTF-8 stands under its name with _base64 appended.";

struct Texts {
  std::string strSince;
  std::vector<CLI::Option*> vecSince;  // that write to it: one may be given, with no text
  std::string strDataId;
  std::string strDirectory;
  std::string strConfig;
  std::string strLogDirectory;
};

void AddFilter(CLI::App& verb, Options& options, Texts& texts, const char* pszSince) {
  verb.add_option("--sender", options.filter.vecSenders,
                  "Only of this sender: a GUID, or a name as qmsend takes it; may be repeated")
      ->allow_extra_args(false)
      ->type_name("GUID|NAME");
  verb.add_option("--priority", options.filter.vecPriorities,
                  "Only of this priority: low, normal, high, real or other; may be repeated")
      ->allow_extra_args(false)
      ->check(CLI::IsMember(std::vector<std::string>{"low", "normal", "high", "real", "other"}).description(""))
      ->type_name("PRIORITY");
  texts.vecSince.push_back(verb.add_option("--since", texts.strSince, pszSince)->type_name("TIME"));
}

constexpr char kSinceRun[] =
    "Only records of the component's run at that time and of later runs (a record itself holds no time): "
    "2026-01-31T12:00 (UTC), or 90s, 15m, 2h, 3d, 1w ago";
constexpr char kSinceLine[] = "Only what was rejected since: 2026-01-31T12:00 (UTC), or 90s, 15m, 2h, 3d, 1w ago";

CLI::App& AddVerb(CLI::App& app, Options& options, Verb verb, const char* pszName, const char* pszDescription) {
  CLI::App* pVerb = app.add_subcommand(pszName, pszDescription);
  pVerb->fallthrough();
  pVerb->callback([&options, verb] { options.verb = verb; });
  return *pVerb;
}

void AddVerbs(CLI::App& app, Options& options, Texts& texts) {
  AddVerb(app, options, Verb::Ls, "ls", "Lists the cache files: sender, rows by priority, bytes, oldest and newest")
      .footer(
          "OLDEST and NEWEST are the times at which the component was started that took those records: a record\n"
          "holds no other time. Backups of damaged files are listed below.");

  CLI::App& show = AddVerb(app, options, Verb::Show, "show", "Shows one record with all that is known of it");
  show.add_option("dataid", texts.strDataId, "The record's id, hexadecimal")->required()->type_name("DATAID");

  CLI::App& cat = AddVerb(app, options, Verb::Cat, "cat", "Prints the records, one a line");
  AddFilter(cat, options, texts, kSinceRun);
  cat.footer(std::string("With --json: ") + kRecordFooter);

  AddVerb(app, options, Verb::Verify, "verify", "Checks every file, and decodes every row of it");

  CLI::App& exporting =
      AddVerb(app, options, Verb::Export, "export", "Writes the records as lines of JSON, for qmsend --records");
  exporting.add_option("file", options.strOutput, "The file to write; '-': standard output")
      ->required()
      ->type_name("FILE|-");
  AddFilter(exporting, options, texts, kSinceRun);
  exporting.footer(kRecordFooter);

  CLI::App& salvage = AddVerb(app, options, Verb::Salvage, "salvage",
                              "Brings out the records that are still readable in a damaged cache file or its backup");
  salvage.add_option("file", options.strDamaged, "A cache file (.db) or a backup (.db.zip); it is not changed")
      ->required()
      ->type_name("FILE");
  CLI::Option* pOutput =
      salvage
          .add_option("--output", options.strOutput, "Write them there, as lines of JSON (default: standard output)")
          ->type_name("FILE");
  salvage
      .add_flag("--into-cache", options.bIntoCache,
                "Write them back to their senders' cache files; the host must be stopped")
      ->excludes(pOutput);
  salvage.footer(std::string("With --json the summary is JSON, too. ") + kRecordFooter);

  CLI::App& rejected = AddVerb(app, options, Verb::Rejected, "rejected",
                               "Prints what the destination rejected for good, as lines of JSON for qmsend --records");
  rejected.add_option("files", options.vecLogFiles, "Files of the error channel (default: all in the log directory)")
      ->type_name("FILE");
  rejected.add_option("--log-directory", texts.strLogDirectory, "Where qmlogcacheerror.log is")->type_name("DIR");
  AddFilter(rejected, options, texts, kSinceLine);
  rejected.footer(std::string(kRecordFooter) +
                  "\nBehind them: result (the code it was rejected with), rejected (when).");
}

bool TakeTexts(const Texts& texts, Options& options, std::string& strError) {
  if (options.verb == Verb::Show && !ReadDataId(texts.strDataId, options.u64DataId)) {
    strError = "'" + texts.strDataId + "' is no data id: up to 16 hexadecimal digits";
    return false;
  }
  if (std::any_of(texts.vecSince.begin(), texts.vecSince.end(), [](CLI::Option* p) { return p->count() > 0; })) {
    int64_t i64Since = 0;
    if (!ReadSince(texts.strSince, std::time(nullptr), i64Since)) {
      strError = "--since: '" + texts.strSince + "' is no time such as 2026-01-31T12:00 or 2h";
      return false;
    }
    options.filter.since = i64Since;
  }
  options.installation = FindInstallation(OwnDirectory(), texts.strConfig);
  if (!texts.strDirectory.empty()) {
    options.installation.strCacheDirectory = texts.strDirectory;
  }
  if (!texts.strLogDirectory.empty()) {
    options.installation.strLogDirectory = texts.strLogDirectory;
  }
  return true;
}

}  // namespace

bool ParseOptions(int iCount, const char* const* ppszArguments, Options& options, int& iExitCode) {
  CLI::App app(kDescription, "qmcache");
  app.footer(kFooter);
  app.set_version_flag("--version", std::string("qmcache ") + QMCACHE_VERSION);
  app.require_subcommand(1);
  Texts texts;
  app.add_option("--directory", texts.strDirectory, "The cache directory (default: the installation's)")
      ->type_name("DIR");
  app.add_option("--config", texts.strConfig, "The host's configuration (default: the installation's etc/qmhost.conf)")
      ->check(CLI::ExistingFile.description(""))
      ->type_name("FILE");
  app.add_flag("--json", options.bJson, "JSON instead of text for people");
  app.add_flag("--quiet", options.bQuiet, "No progress bar");
  AddVerbs(app, options, texts);

  std::string strError;
  try {
    app.parse(iCount, ppszArguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      iExitCode = app.exit(error, std::cout, std::cerr);
      return false;
    }
    strError = error.what();
  }
  if (strError.empty() && TakeTexts(texts, options, strError)) {
    return true;
  }
  iExitCode = kExitUsage;
  std::cerr << "qmcache: " << strError << "\nqmcache: --help shows the usage\n";
  return false;
}
