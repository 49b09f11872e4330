// qmsend: sends records to the plug-in host.
#include <cstdio>
#include <exception>

#include "host/protocol/standard_descriptors.h"
#include "tools/qmsend/follow/follower.h"
#include "tools/qmsend/options.h"
#include "tools/qmsend/sender.h"

int main(int iCount, char** ppszArguments) {
  try {
    FillStandardDescriptors();
    SendOptions options;
    int iExitCode = kExitUsageOrConnection;
    if (!ParseOptions(iCount, ppszArguments, options, iExitCode)) {
      return iExitCode;
    }
    return options.strFollow.empty() ? CSender(options).Run() : CFollower(options).Run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qmsend: stopped by an error: %s\n", error.what());
    return kExitSomeNotAccepted;
  }
}
