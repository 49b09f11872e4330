// SIGINT and SIGTERM: noticed only while the program waits, so that they interrupt nothing else.
#ifndef QMLOGCACHE_TOOLS_QMSEND_INTERRUPT_H_
#define QMLOGCACHE_TOOLS_QMSEND_INTERRUPT_H_

#include <poll.h>

#include <csignal>
#include <cstddef>

// One at a time. SIGPIPE is ignored as well.
class CInterrupt {
 public:
  CInterrupt();
  ~CInterrupt();
  CInterrupt(const CInterrupt&) = delete;
  CInterrupt& operator=(const CInterrupt&) = delete;

  // poll(2), during which the signals may come. A negative time waits without end. Returns at once when one has come.
  int Wait(pollfd* pDescriptors, size_t uCount, int iTimeoutMs);
  // How many have come.
  static int Count();

 private:
  sigset_t m_oldMask{};
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_INTERRUPT_H_
