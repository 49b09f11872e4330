// qmhost: loads plug-ins, routes messages between them and local producers, and carries records to their destination.
#include <sqlite3.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "host/config/host_config.h"
#include "host/host.h"
#include "host/protocol/standard_descriptors.h"
#include "host/service/thread_left_behind.h"
#include "platform/file_info.h"

namespace {

// The parent of the directory of this executable; empty when the system does not tell.
std::string InstallationPrefix() {
  std::array<char, 4096> arrDirectory{};
  if (QmGetModuleFilePath(arrDirectory.data(), static_cast<unsigned int>(arrDirectory.size())) != 0) {
    return {};
  }
  return std::filesystem::path(arrDirectory.data()).parent_path().string();
}

int RunMain(int iArguments, char** ppszArguments) {
  CLI::App app{
      "Hosts log-cache plug-ins: takes records from local producers, carries them to their destination.\n"
      "Exit status: 0 after a stop by SIGTERM or SIGINT, 1 when the start fails (also when any configured\n"
      "plug-in cannot be loaded or started), 2 for a bad command line or configuration.",
      "qmhost"};
  std::string strFile;
  bool bCheck = false;
  app.add_option("--config", strFile, "The configuration file")->required()->type_name("FILE");
  app.add_flag("--check-config", bCheck, "Tell all that is wrong with the configuration, and end");
  app.set_version_flag("--version", "qmhost " QMHOST_VERSION);
  try {
    app.parse(iArguments, ppszArguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitOk : kExitBadConfig;
  }

  const std::string strPrefix = InstallationPrefix();
  if (strPrefix.empty()) {
    std::fprintf(stderr, "qmhost: cannot tell in which directory this program is\n");
    return kExitFailed;
  }
  HostConfig config;
  const std::vector<ConfigProblem> vecProblems = LoadHostConfig(strFile, strPrefix, config);
  for (const ConfigProblem& problem : vecProblems) {
    std::fprintf(stderr, "%s\n", FormatProblem(strFile, problem).c_str());
  }
  if (!vecProblems.empty()) {
    return kExitBadConfig;
  }
  if (bCheck) {
    std::printf("%s: OK\n", strFile.c_str());
    return kExitOk;
  }
  CHost host(std::move(config), strPrefix);
  return host.Run();
}

}  // namespace

int main(int iArguments, char** ppszArguments) {
  int iStatus = kExitFailed;
  try {
    FillStandardDescriptors();
    // SQLite's count of its memory is a lock of the whole process for each allocation, and nobody asks for it.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    iStatus = RunMain(iArguments, ppszArguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qmhost: %s\n", error.what());
  }
  return ExitStatus(iStatus);
}
