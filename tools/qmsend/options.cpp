#include "tools/qmsend/options.h"

#include <pwd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <system_error>
#include <utility>

namespace {

constexpr unsigned int kLongestRetry = 7 * 24 * 3600;

constexpr char kDescription[] =
    "Sends records to the plug-in host: one a line, from files or standard input.\n"
    "\n"
    "A record is the line's bytes without the newline; a last line without one counts too. Empty records are not\n"
    "sent, only counted. A record that holds a zero byte is not sent either, since the component would cut it there,\n"
    "nor is one that is too long for the host: both count as not accepted. What was not accepted is named on standard\n"
    "error.";

constexpr char kFooter[] =
    "With --records a line is what 'qmcache export', 'qmcache rejected' and the host's file link write; one that is "
    "not\n"
    "is not sent and counts as malformed.\n"
    "\n"
    "With --retry a record that is refused or whose answer is lost with the connection is sent again, for at most so\n"
    "many seconds. A record whose answer was lost, or that the component did not answer in time, may have been taken\n"
    "already and then arrives twice.\n"
    "\n"
    "The counts of --summary add up to the records read: accepted, refused (by the component), skipped (empty),\n"
    "too_long, zero_byte and malformed (not sent), unanswered (may have been taken or not).\n"
    "\n"
    "With --follow lines that a host does not take now, or that found no host, are waited with and sent again; only a\n"
    "line that can never be sent is named and passed over. How far everything is accepted is noted at least once a\n"
    "second and before half the host's window was sent on; after a crash the lines behind that are sent again, at "
    "most\n"
    "one window (1024 unless configured). A log that is not there is waited for. SIGTERM and SIGINT end it in order.\n"
    "\n"
    "Exit status: 0 every record was accepted (--follow: it was ended by a signal), 1 some were not (--follow: the\n"
    "position could not be noted at the end), 2 wrong usage or no connection.";

template <typename T>
using Named = std::pair<const char*, T>;

constexpr Named<RecordPriority> kPriorities[] = {{"low", RecordPriority::Low},
                                                 {"normal", RecordPriority::Normal},
                                                 {"high", RecordPriority::High},
                                                 {"real", RecordPriority::Real}};
constexpr Named<RecordKind> kKinds[] = {{"edr", RecordKind::Edr}, {"epp", RecordKind::Epp}, {"tag", RecordKind::Tag}};

template <typename T, size_t uCount>
std::vector<std::string> KeysOf(const Named<T> (&aNamed)[uCount]) {
  std::vector<std::string> vecKeys;
  for (const auto& named : aNamed) {
    vecKeys.emplace_back(named.first);
  }
  return vecKeys;
}

// The name was checked to be one of them.
template <typename T, size_t uCount>
T ValueOf(const Named<T> (&aNamed)[uCount], const std::string& strName) {
  return std::find_if(std::begin(aNamed), std::end(aNamed) - 1,
                      [&](const Named<T>& named) { return strName == named.first; })
      ->second;
}

// The directory above the one of this program; empty when that cannot be told.
std::filesystem::path Prefix() {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::filesystem::path() : self.parent_path().parent_path();
}

// Where the system is the installation, the socket is apart from the data, which is closed to producers.
std::string DefaultSocket() {
  std::error_code error;
  const bool bApart = std::filesystem::is_symlink(Prefix() / "run", error);
  return (Prefix() / (bApart ? "run" : "data") / "qmhost.sock").string();
}

std::string DefaultPositions() {
  return (Prefix() / "data" / "qmsend").string();
}

// Each log has a position of its own; of two whose paths give the same name the second is refused.
std::string DefaultPosition(const std::string& strLog) {
  std::string strName = strLog.substr(strLog.find_first_not_of('/'));
  std::replace(strName.begin(), strName.end(), '/', '-');
  return DefaultPositions() + "/" + strName + ".position";
}

std::string DefaultSender() {
  const uid_t uUser = ::geteuid();
  std::string strBuffer(16384, '\0');
  passwd entry{};
  passwd* pFound = nullptr;
  if (::getpwuid_r(uUser, &entry, strBuffer.data(), strBuffer.size(), &pFound) == 0 && pFound != nullptr) {
    return std::string("qmsend ") + pFound->pw_name;
  }
  return "qmsend " + std::to_string(uUser);
}

}  // namespace

bool ParseOptions(int iCount, const char* const* ppszArguments, SendOptions& options, int& iExitCode) {
  CLI::App app(kDescription, "qmsend");
  app.footer(kFooter);
  app.set_version_flag("--version", std::string("qmsend ") + QMSEND_VERSION);

  options.strSocket = DefaultSocket();
  options.strSender = DefaultSender();
  bool bNul = false;
  bool bWholeFile = false;
  std::string strPriority = "normal";
  std::string strKind = "edr";

  app.add_option("--socket", options.strSocket, "The host's socket (default: " + options.strSocket + ")")
      ->type_name("PATH");
  app.add_option("--priority", strPriority, "low, normal (default), high or real")
      ->check(CLI::IsMember(KeysOf(kPriorities)).description(""))
      ->type_name("PRIORITY");
  app.add_flag("--public", options.message.bPublic, "Records are public");
  app.add_option("--kind", strKind, "edr (default), epp or tag")
      ->check(CLI::IsMember(KeysOf(kKinds)).description(""))
      ->type_name("KIND");
  app.add_option("--product", options.message.strProduct, "Product name, at most 63 bytes")->type_name("TEXT");
  app.add_option("--combo", options.message.strCombo, "Combo name, at most 63 bytes")->type_name("TEXT");
  app.add_flag("--no-save", options.message.bNoSave, "Records are never written to disk");
  app.add_option("--sender", options.strSender,
                 "Sender of the records: a GUID, or a name that becomes one (default: '" + options.strSender + "')")
      ->type_name("GUID|NAME");
  CLI::Option* pNul = app.add_flag("--nul", bNul, "Records end with a zero byte instead of a newline");
  CLI::Option* pWholeFile = app.add_flag("--whole-file", bWholeFile, "Every file is one record")->excludes(pNul);
  CLI::Option* pRecords = app.add_flag("--records", options.bJsonRecords,
                                       "Every line is a record in JSON with a sender, priority and names of its own");
  pRecords->excludes(pNul)->excludes(pWholeFile);
  app.add_option("--retry", options.uRetrySeconds, "Try again for at most so long a record (default: 0, not at all)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0U, kLongestRetry).description(""));
  app.add_flag("--quiet", options.bQuiet, "No progress and no summary; what was not accepted is still named");
  app.add_option("--summary", options.strSummary, "Write the final counts to this file, as lines of KEY VALUE")
      ->type_name("FILE");
  CLI::Option* pFollow =
      app.add_option("--follow", options.strFollow,
                     "Send the lines of this log as they are appended, on over rotations and restarts, until a signal")
          ->type_name("FILE")
          ->excludes("--whole-file", "--retry", "--summary");
  app.add_option("--position", options.strPosition,
                 "Where --follow notes how far it is (default: a file in " + DefaultPositions() + ")")
      ->type_name("FILE")
      ->needs(pFollow);
  app.add_option("files", options.vecFiles, "Files to read; '-' or none: standard input")
      ->type_name("FILE")
      ->excludes(pFollow);

  try {
    app.parse(iCount, ppszArguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      iExitCode = app.exit(error, std::cout, std::cerr);
    } else {
      iExitCode = kExitUsageOrConnection;
      std::cerr << "qmsend: " << error.what() << "\nqmsend: --help shows the usage\n";
    }
    return false;
  }
  if (options.bJsonRecords && app.count("--follow") > 0) {
    std::cerr << "qmsend: --follow excludes --records: what is followed is sent line by line\n";
    iExitCode = kExitUsageOrConnection;
    return false;
  }
  for (const char* pszOption : {"--priority", "--public", "--kind", "--product", "--combo", "--sender"}) {
    if (options.bJsonRecords && app.count(pszOption) > 0) {
      std::cerr << "qmsend: " << pszOption << " excludes --records, whose records have their own\n";
      iExitCode = kExitUsageOrConnection;
      return false;
    }
  }
  if (options.strSender.empty()) {
    std::cerr << "qmsend: --sender: the name is empty\n";
    iExitCode = kExitUsageOrConnection;
    return false;
  }
  if (pFollow->count() > 0) {
    options.strFollow = std::filesystem::absolute(options.strFollow).lexically_normal().string();
    if (options.strFollow.back() == '/') {
      std::cerr << "qmsend: --follow: " << options.strFollow << " is not a file\n";
      iExitCode = kExitUsageOrConnection;
      return false;
    }
    if (options.strPosition.empty()) {
      options.strPosition = DefaultPosition(options.strFollow);
    }
  }
  options.message.priority = ValueOf(kPriorities, strPriority);
  options.message.kind = ValueOf(kKinds, strKind);
  options.mode = bNul ? RecordMode::Zeros : bWholeFile ? RecordMode::WholeFile : RecordMode::Lines;
  if (options.vecFiles.empty()) {
    options.vecFiles.emplace_back("-");
  }
  return true;
}
