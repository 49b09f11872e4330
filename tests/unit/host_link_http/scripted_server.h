// An HTTP server on loopback that answers as a test says, byte for byte.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_LINK_HTTP_SCRIPTED_SERVER_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_LINK_HTTP_SCRIPTED_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct ServedRequest {
  std::string strHeader;
  std::vector<uint64_t> vecIds;  // of the records, in order
  std::string strBody;           // as it came
};

// Every connection has a thread of its own; the answer function is called with no lock held, several at a time.
class CScriptedServer {
 public:
  // Gives the answer's bytes; what is empty closes the connection.
  using AnswerFunction = std::function<std::string(const ServedRequest& request)>;

  explicit CScriptedServer(AnswerFunction fnAnswer);
  // Ends all connections; answer functions must have an end.
  ~CScriptedServer();
  CScriptedServer(const CScriptedServer&) = delete;
  CScriptedServer& operator=(const CScriptedServer&) = delete;

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_uPort) + "/records"; }
  std::vector<ServedRequest> Requests() const;
  // How many there have been.
  size_t CountConnections() const;

 private:
  void Listen();
  void Serve(int iFd);

  const AnswerFunction m_fnAnswer;
  int m_iListenFd = -1;
  uint16_t m_uPort = 0;
  std::thread m_thread;

  mutable std::mutex m_mutex;  // guards the rest
  std::vector<int> m_vecFds;
  std::list<std::thread> m_lstThreads;
  std::vector<ServedRequest> m_vecRequests;
};

// "HTTP/1.1 STATUS X" with no body.
std::string StatusAnswer(int iStatus, const std::string& strHeader = "");

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_LINK_HTTP_SCRIPTED_SERVER_H_
