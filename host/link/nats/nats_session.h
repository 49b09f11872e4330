// One connection to a server, and the records that wait there for their acknowledgement. The only file that speaks
// to libnats.
//
// libnats calls back on threads of its own, at times even after a connection is gone. Such a call finds its session by
// a number or finds it no more; it files what it has to tell, and wakes whoever works with the session.
#ifndef QMLOGCACHE_HOST_LINK_NATS_NATS_SESSION_H_
#define QMLOGCACHE_HOST_LINK_NATS_NATS_SESSION_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "host/link/nats/nats_answer.h"
#include "host/link/nats/nats_driver.h"

// A server or a stream that takes less than that has been set up by mistake: its word rejects no record.
inline constexpr size_t kLeastMessage = 64U << 10;

// A record that was published.
struct NatsPublished {
  std::shared_ptr<LinkRecord> pRecord;
  size_t uBytes = 0;  // of the message as servers count it
  std::chrono::steady_clock::time_point at{};
  NatsAnswer answer;  // once there is one
};

struct NatsSecrets {
  std::string strToken;
  std::string strPassword;
};

// Of one thread.
class CNatsSession {
 public:
  // wake: called on any thread when there is something to take; must not block.
  CNatsSession(const NatsDriverOptions& options, std::function<void()> wake);
  // Records that were not acknowledged are forgotten.
  ~CNatsSession();
  CNatsSession(const CNatsSession&) = delete;
  CNatsSession& operator=(const CNatsSession&) = delete;

  // Connects to the server, and asks whether the stream is there, has a leader and takes the agent's subjects. False
  // with a reason. Once. isCancelled: asked now and then, on another thread; the connection is wanted no more.
  bool Open(const std::string& strUrl, bool bTls, const NatsSecrets& secrets, std::function<bool()> isCancelled,
            std::string& strReason);

  // Sends a record; its outcome comes by TakeAnswered. False with an answer that says why when it could not be sent.
  bool Publish(const std::shared_ptr<LinkRecord>& pRecord, const std::string& strSubject, const std::string& strId,
               const std::string& strPayload, NatsAnswer& answer);
  // How large a message with that id and payload is as servers count it, headers included.
  size_t MessageSize(size_t uIdBytes, size_t uPayloadBytes) const;
  // The largest message that the server takes.
  size_t MaxMessage() const;
  // The largest message that the stream takes, asked for now; 0: it has no bound of its own. False with a reason.
  bool AskMaxOfStream(size_t& uBytes, std::string& strReason);
  // How the stream loses acknowledged records, as it said last; empty when it does not.
  const std::string& Losses() const { return m_strLosses; }

  size_t CountPending() const;
  // Nothing waits for an answer, and none that came waits to be taken.
  bool IsIdle() const;
  size_t PendingBytes() const;
  // What was answered since, in the order of the answers.
  std::list<NatsPublished> TakeAnswered();
  // What still waits, in the order of its publication: it is the caller's then, and will not be answered.
  std::list<NatsPublished> TakePending();
  // Whether the connection is of no more use; with a reason.
  bool IsLost(std::string& strReason) const;

 private:
  struct Shared;
  struct Library;

  bool Connect(const std::string& strUrl, bool bTls, const NatsSecrets& secrets, std::function<bool()> isCancelled,
               std::string& strReason);

  const NatsDriverOptions m_options;
  std::shared_ptr<Shared> m_pShared;
  std::unique_ptr<Library> m_pLibrary;
  std::string m_strLosses;
};

#endif  // QMLOGCACHE_HOST_LINK_NATS_NATS_SESSION_H_
