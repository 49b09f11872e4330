#include "tests/unit/host_ingress/descriptor_shortage.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

DescriptorShortage g_descriptorShortage;

extern "C" int accept(int iSocket, sockaddr* pAddress, socklen_t* puLength) {
  rlimit old{};
  const bool bShort = g_descriptorShortage.bOn && getrlimit(RLIMIT_NOFILE, &old) == 0;
  if (bShort) {
    const rlimit none{0, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  const int iAccepted = static_cast<int>(syscall(SYS_accept, iSocket, pAddress, puLength));
  const int iError = errno;
  if (bShort) {
    setrlimit(RLIMIT_NOFILE, &old);
    g_descriptorShortage.uRefused += iAccepted < 0 && iError == EMFILE ? 1 : 0;
  }
  errno = iError;
  return iAccepted;
}
