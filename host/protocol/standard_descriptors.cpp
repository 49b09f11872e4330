#include "host/protocol/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

void FillStandardDescriptors() {
  int iDescriptor = ::open("/dev/null", O_WRONLY);
  while (iDescriptor >= 0 && iDescriptor <= STDERR_FILENO) {
    iDescriptor = ::open("/dev/null", O_WRONLY);
  }
  if (iDescriptor >= 0) {
    ::close(iDescriptor);
  }
}
