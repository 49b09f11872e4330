// The nats driver's thread. Its life and its loop are in nats_worker.cpp, what answers lead to in
// nats_worker_answers.cpp, the choice of a server in nats_worker_servers.cpp.
//
// The thread does everything but Deliver, calls into the server link above all. While the link is down it tries the
// servers, in an order that it draws, after pauses (CBackOff), and says that the link is up once the stream answers.
#ifndef QMLOGCACHE_HOST_LINK_NATS_NATS_WORKER_H_
#define QMLOGCACHE_HOST_LINK_NATS_NATS_WORKER_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/link/back_off.h"
#include "host/link/nats/nats_driver.h"
#include "host/link/nats/nats_servers.h"
#include "host/link/nats/nats_session.h"
#include "host/link/record_line.h"
#include "host/link/token_file.h"
#include "host/service/loop.h"

// Made for one Start and one Stop. The thread keeps it alive.
class CNatsWorker : public std::enable_shared_from_this<CNatsWorker> {
 public:
  CNatsWorker(const NatsDriverOptions& options, NatsServers servers, ILinkEvents* pEvents);
  ~CNatsWorker();
  CNatsWorker(const CNatsWorker&) = delete;
  CNatsWorker& operator=(const CNatsWorker&) = delete;

  // Throws std::system_error.
  void Start();
  void Stop();
  void Deliver(const std::shared_ptr<LinkRecord>& pRecord);
  void Reopen();

 private:
  using Clock = std::chrono::steady_clock;
  using RecordList = std::vector<std::shared_ptr<LinkRecord>>;

  void Wake();
  void Run();
  // False when the thread is to end.
  bool Step();
  void TakeOrders();
  bool IsDone() const;
  void Wait();
  // Calls the link, unless the driver has been left behind.
  template <typename TCall>
  void Tell(TCall call);

  // Connects to a server that takes messages of that size; beside a session, to another server, and the session is left
  // alone unless there is one. False with the reasons of those that were not reached; they may be none, and not all
  // servers have been asked when the driver is to stop.
  bool TryServers(size_t uNeeded, std::string& strReason);
  // Null with a reason.
  std::unique_ptr<CNatsSession> OpenSession(const std::string& strUrl, std::string& strReason);
  void NoteServer(const std::string& strUrl, const CNatsSession& session);
  void MoveForFirst();
  bool ReadSecrets(NatsSecrets& secrets, std::string& strReason);
  bool IsRenewalDue() const { return m_renewAt && Clock::now() >= *m_renewAt; }
  void Renew();
  void PublishNext();
  // False with a reason when the link is in trouble; the record is in the queue then, and also when the server does not
  // take its size, which sets m_uNeeded.
  bool PublishOne(std::string& strReason);

  void TakeAnswers();
  // Of the first of m_lstAnswered. What the answer makes of the record; nothing, with a reason, when it is the link's
  // trouble and no record's.
  std::optional<uint32_t> JudgeFirst(std::string& strReason);
  std::optional<uint32_t> JudgeTooLarge(const NatsPublished& published, std::string& strReason);
  void LogRejected(const LinkRecord& record, size_t uBytes, size_t uMost, const char* pszWhose);
  void ComeUp();
  void StayDown(const std::string& strReason);
  // Gives all records back: those of m_lstBack, those that wait for an answer, those that were not sent.
  void GoDown(const std::string& strReason);
  void AnswerFirst(std::list<NatsPublished>& lstRecords, uint32_t uResult);
  // There was no memory: every record here is answered to be sent again.
  void Surrender(const char* pszWhy) noexcept;

  const NatsDriverOptions m_options;
  const NatsServers m_servers;
  ILinkEvents* const m_pEvents;
  void* m_hLog = nullptr;
  std::thread m_thread;

  mutable std::mutex m_mutex;           // guards the nine below the condition
  std::condition_variable m_condition;  // notified when one of them changes
  RecordList m_vecDelivered;
  bool m_bWake = false;
  bool m_bWaiting = false;
  bool m_bStop = false;
  bool m_bReopen = false;
  bool m_bConnecting = false;  // the thread tries servers
  bool m_bDone = false;        // the thread is at its end
  bool m_bTelling = false;     // a call into the link runs
  bool m_bAbandoned = false;   // the thread was left behind: no call into the link begins
  CLoop m_loop{"qmhost-nats", [this] { m_condition.notify_all(); }};

  // Of the thread alone.
  CRecordLine m_recordLine;
  CTokenFile m_token;
  CTokenFile m_password;
  CBackOff m_backOff;
  std::mt19937_64 m_random;
  std::unique_ptr<CNatsSession> m_pSession;       // there while the link is up
  std::string m_strServer;                        // its URL
  std::map<std::string, size_t> m_mapMaxMessage;  // by URL, what a server has said last that it takes
  size_t m_uNeeded = 0;  // unless 0, the size of the first record of the queue, which the server does not take
  std::deque<std::shared_ptr<LinkRecord>> m_deqQueue;
  std::list<NatsPublished> m_lstAnswered;  // answers that are being taken
  std::list<NatsPublished> m_lstBack;      // what is to be given back
  bool m_bUp = false;
  bool m_bToldDown = false;
  // A new connection, as soon after that as nothing waits for an answer.
  std::optional<Clock::time_point> m_renewAt;
  std::optional<Clock::time_point> m_stopUntil;
  Clock::time_point m_upSince{};
  Clock::time_point m_nextAttempt{};
  Clock::time_point m_lastAccepted{};
  bool m_bTimeoutLogged = false;  // since the link came up
  bool m_bAwayLogged = false;     // likewise, that a record waits for a server that takes it
  bool m_bDifferenceLogged = false;
  std::string m_strLosses;   // of the stream, as logged last
  std::string m_strSubject;  // of the record that is being sent, to keep their memory
  std::string m_strId;
  std::string m_strPayload;
};

template <typename TCall>
void CNatsWorker::Tell(TCall call) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_bAbandoned) {
      return;
    }
    m_bTelling = true;
  }
  call(*m_pEvents);
  {
    const std::lock_guard lock(m_mutex);
    m_bTelling = false;
  }
  m_condition.notify_all();
}

#endif  // QMLOGCACHE_HOST_LINK_NATS_NATS_WORKER_H_
