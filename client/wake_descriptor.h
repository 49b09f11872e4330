// One descriptor that is readable when a socket is ready or a time has come: an epoll instance that holds both. It stays
// the same while sockets come and go.
#ifndef QMLOGCACHE_CLIENT_WAKE_DESCRIPTOR_H_
#define QMLOGCACHE_CLIENT_WAKE_DESCRIPTOR_H_

#include <chrono>
#include <optional>

class CWakeDescriptor {
 public:
  using Clock = std::chrono::steady_clock;

  CWakeDescriptor() = default;
  ~CWakeDescriptor();
  CWakeDescriptor(const CWakeDescriptor&) = delete;
  CWakeDescriptor& operator=(const CWakeDescriptor&) = delete;

  // False when there is no descriptor to be had.
  [[nodiscard]] bool Open();
  int Descriptor() const { return m_iEpoll; }
  // -1: no socket. The socket must be forgotten before it is closed: a copy in a child process would keep it in.
  void Watch(int iSocket, bool bWritable);
  void Forget(int iSocket);
  // None: at no time.
  void WakeAt(std::optional<Clock::time_point> time);
  // Until it is readable or the time has come, whichever is first; none: without end.
  void Wait(std::optional<Clock::time_point> until) const;

 private:
  int m_iEpoll = -1;
  int m_iTimer = -1;
  int m_iSocket = -1;  // that is watched
  bool m_bWritable = false;
  std::optional<Clock::time_point> m_wakeAt;
};

#endif  // QMLOGCACHE_CLIENT_WAKE_DESCRIPTOR_H_
