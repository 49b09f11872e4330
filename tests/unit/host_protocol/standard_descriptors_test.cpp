#include "host/protocol/standard_descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The lowest descriptor that a child without the descriptors iFirst to 2 opens after the call.
int NextDescriptorWithout(int iFirst) {
  const pid_t iChild = fork();
  if (iChild == 0) {
    for (int iDescriptor = iFirst; iDescriptor <= STDERR_FILENO; ++iDescriptor) {
      close(iDescriptor);
    }
    FillStandardDescriptors();
    for (int iDescriptor = 0; iDescriptor <= STDERR_FILENO; ++iDescriptor) {
      if (fcntl(iDescriptor, F_GETFD) < 0) {
        _exit(100 + iDescriptor);
      }
    }
    _exit(open("/dev/null", O_RDONLY));
  }
  int iStatus = 0;
  return iChild > 0 && waitpid(iChild, &iStatus, 0) == iChild && WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
}

TEST(StandardDescriptorsTest, AreFilledWhereTheyAreMissing) {
  for (const int iFirst : {0, 1, 2}) {
    EXPECT_GT(NextDescriptorWithout(iFirst), STDERR_FILENO) << iFirst;
  }
}

TEST(StandardDescriptorsTest, LeaveNoOtherDescriptorOpen) {
  const int iNext = open("/dev/null", O_RDONLY);
  close(iNext);
  EXPECT_EQ(NextDescriptorWithout(0), iNext);
}

}  // namespace
