// The command line of qmsend.
#ifndef QMLOGCACHE_TOOLS_QMSEND_OPTIONS_H_
#define QMLOGCACHE_TOOLS_QMSEND_OPTIONS_H_

#include <string>
#include <vector>

#include "client/core/message_builder.h"
#include "tools/qmsend/record_reader.h"

inline constexpr int kExitAllAccepted = 0;
inline constexpr int kExitSomeNotAccepted = 1;
inline constexpr int kExitUsageOrConnection = 2;

struct SendOptions {
  std::string strSocket;
  MessageOptions message;
  std::string strSender;
  RecordMode mode = RecordMode::Lines;
  bool bJsonRecords = false;  // each line is a record with fields of its own
  unsigned int uRetrySeconds = 0;
  bool bQuiet = false;
  std::string strSummary;             // empty: no summary file
  std::vector<std::string> vecFiles;  // never empty
  std::string strFollow;              // absolute path of the log to follow; empty: none
  std::string strPosition;            // where its position is kept
};

// False when the program is to end with iExitCode: help or version was printed, or what is wrong with the arguments.
[[nodiscard]] bool ParseOptions(int iCount, const char* const* ppszArguments, SendOptions& options, int& iExitCode);

#endif  // QMLOGCACHE_TOOLS_QMSEND_OPTIONS_H_
