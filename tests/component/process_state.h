// What this process holds, as the kernel tells it.
#ifndef QMLOGCACHE_TESTS_COMPONENT_PROCESS_STATE_H_
#define QMLOGCACHE_TESTS_COMPONENT_PROCESS_STATE_H_

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "hang_guard.h"

inline size_t CountOpenFiles() {
  using Iterator = std::filesystem::directory_iterator;
  return static_cast<size_t>(std::distance(Iterator("/proc/self/fd"), Iterator()));
}

// Threads of that name.
inline size_t CountThreads(const std::string& strName) {
  size_t uCount = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "comm");
    std::string strComm;
    std::getline(file, strComm);  // empty when the thread has just ended
    uCount += strComm == strName ? 1 : 0;
  }
  return uCount;
}

// A detached thread leaves the process a moment after it has told its owner that it ends.
inline bool WaitForThreads(const std::string& strName, size_t uCount) {
  const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
  while (CountThreads(strName) != uCount) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

#endif  // QMLOGCACHE_TESTS_COMPONENT_PROCESS_STATE_H_
