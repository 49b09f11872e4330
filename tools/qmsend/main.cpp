// qmsend: sends records to the plug-in host.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "tools/qmsend/options.h"
#include "tools/qmsend/sender.h"

namespace {

// A standard descriptor that was closed at the start must not become the socket or a file.
void FillStandardDescriptors() {
  int iDescriptor = ::open("/dev/null", O_WRONLY);
  while (iDescriptor >= 0 && iDescriptor <= STDERR_FILENO) {
    iDescriptor = ::open("/dev/null", O_WRONLY);
  }
  ::close(iDescriptor);
}

}  // namespace

int main(int iCount, char** ppszArguments) {
  try {
    FillStandardDescriptors();
    SendOptions options;
    int iExitCode = kExitUsageOrConnection;
    if (!ParseOptions(iCount, ppszArguments, options, iExitCode)) {
      return iExitCode;
    }
    return CSender(options).Run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qmsend: stopped by an error: %s\n", error.what());
    return kExitSomeNotAccepted;
  }
}
