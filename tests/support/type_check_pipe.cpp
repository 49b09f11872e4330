// For programs whose tests leave the process without descriptors. The sanitizers' check of an object's type looks at
// memory through a pipe that it opens for a moment; where it gets none it calls a sound object invalid. So its pipe
// comes from outside the limit. Nothing under test calls pipe.
#if defined(__SANITIZE_ADDRESS__)
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <mutex>

extern "C" [[gnu::visibility("default")]] int pipe(int* piEnds) {
  static std::mutex s_mutex;  // one at a time finds the test's limit, and not another one's room
  const std::lock_guard<std::mutex> guard(s_mutex);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit room{limit.rlim_max, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &room);
  const int iResult = pipe2(piEnds, 0);
  setrlimit(RLIMIT_NOFILE, &limit);
  return iResult;
}
#endif
