// qmcache: looks into the cache files.
#include <csignal>
#include <cstdio>
#include <exception>

#include "host/protocol/standard_descriptors.h"
#include "tools/qmcache/exit_codes.h"
#include "tools/qmcache/interruption.h"
#include "tools/qmcache/output.h"
#include "tools/qmcache/verbs.h"

namespace {

int Run(const Options& options) {
  switch (options.verb) {
    case Verb::Ls:
      return RunLs(options);
    case Verb::Show:
      return RunShow(options);
    case Verb::Cat:
      return RunCat(options);
    case Verb::Verify:
      return RunVerify(options);
    case Verb::Export:
      return RunExport(options);
    case Verb::Salvage:
      return RunSalvage(options);
    case Verb::Rejected:
      return RunRejected(options);
  }
  return kExitUsage;
}

}  // namespace

int main(int iCount, char** ppszArguments) {
  try {
    FillStandardDescriptors();
    NoticeSignals();
    Options options;
    int iExitCode = kExitUsage;
    return ParseOptions(iCount, ppszArguments, options, iExitCode) ? Run(options) : iExitCode;
  } catch (const Interruption& interruption) {
    return kExitSignalBase + interruption.iSignal;
  } catch (const ReaderGone&) {
    return kExitSignalBase + SIGPIPE;
  } catch (const std::exception& error) {
    Complain(error.what());
    return kExitFailed;
  }
}
