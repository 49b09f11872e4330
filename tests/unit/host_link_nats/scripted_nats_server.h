// A NATS server with one JetStream stream, as much as the driver needs of it; it answers records as a test says.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_LINK_NATS_SCRIPTED_NATS_SERVER_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_LINK_NATS_SCRIPTED_NATS_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Every connection has a thread of its own; the answer function is called with no lock held, several at a time.
class CScriptedNatsServer {
 public:
  // Gives the acknowledgement (JSON) for the record with that data id, or nothing, which closes the connection.
  using AnswerFunction = std::function<std::string(uint64_t u64DataId)>;

  // The stream has the name "s" and takes all subjects.
  CScriptedNatsServer(size_t uMaxPayload, AnswerFunction fnAnswer);
  // Ends all connections; answer functions must have an end.
  ~CScriptedNatsServer();
  CScriptedNatsServer(const CScriptedNatsServer&) = delete;
  CScriptedNatsServer& operator=(const CScriptedNatsServer&) = delete;

  std::string Url() const { return "nats://127.0.0.1:" + std::to_string(m_uPort); }

 private:
  void Listen();
  void Serve(int iFd);

  const size_t m_uMaxPayload;
  const AnswerFunction m_fnAnswer;
  int m_iListenFd = -1;
  uint16_t m_uPort = 0;
  std::thread m_thread;

  std::mutex m_mutex;  // guards the rest
  std::vector<int> m_vecFds;
  std::list<std::thread> m_lstThreads;
};

// {"stream":"s","seq":1}
std::string GoodAck();

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_LINK_NATS_SCRIPTED_NATS_SERVER_H_
