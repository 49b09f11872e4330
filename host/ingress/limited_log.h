// Warnings that a producer can provoke: at most one line a second of each kind, and the next one tells how many were
// left out. Any thread.
#ifndef QMLOGCACHE_HOST_INGRESS_LIMITED_LOG_H_
#define QMLOGCACHE_HOST_INGRESS_LIMITED_LOG_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

class CLimitedLog {
 public:
  enum class Kind : size_t {
    PeerRefused,
    TooManyConnections,
    AcceptError,
    RuleBroken,
    Disconnected,
    InternalError,
    Count
  };

  // Opens the host's channel; the destructor closes it.
  CLimitedLog();
  ~CLimitedLog();
  CLimitedLog(const CLimitedLog&) = delete;
  CLimitedLog& operator=(const CLimitedLog&) = delete;

  // Throws nothing.
  void Warn(Kind kind, const std::string& strText) noexcept;
  // Not limited: the server's own start and stop.
  void Note(const std::string& strText) noexcept;

 private:
  struct Line {
    std::chrono::steady_clock::time_point next{};
    uint64_t u64LeftOut = 0;
  };

  void* const m_hLog;
  std::mutex m_mutex;  // guards m_aLines
  std::array<Line, static_cast<size_t>(Kind::Count)> m_aLines{};
};

#endif  // QMLOGCACHE_HOST_INGRESS_LIMITED_LOG_H_
