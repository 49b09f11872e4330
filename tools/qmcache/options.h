// The command line of qmcache.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_OPTIONS_H_
#define QMLOGCACHE_TOOLS_QMCACHE_OPTIONS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tools/qmcache/filter.h"
#include "tools/qmcache/installation.h"

enum class Verb { Ls, Show, Cat, Verify, Export, Salvage, Rejected };

struct Options {
  Verb verb = Verb::Ls;
  Installation installation;  // with what the command line says in its place
  bool bJson = false;
  bool bQuiet = false;                   // no progress
  Filter filter;                         // cat, export, rejected
  uint64_t u64DataId = 0;                // show
  std::string strOutput = "-";           // export, salvage
  std::string strDamaged;                // salvage
  bool bIntoCache = false;               // salvage
  std::vector<std::string> vecLogFiles;  // rejected; empty: those of the log directory
};

// False when the program is to end with iExitCode: help or version was printed, or what is wrong with the arguments.
// Throws std::system_error when the installation cannot be found.
[[nodiscard]] bool ParseOptions(int iCount, const char* const* ppszArguments, Options& options, int& iExitCode);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_OPTIONS_H_
