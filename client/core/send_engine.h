// Keeps a window of records on their way to the host and knows of each what became of it. Connects, connects again when
// the connection is lost, and sends again what had no answer: a record may arrive twice, and none is lost silently.
//
// Never blocks and has no threads: the owner waits, on the descriptor and until NextTurn, and calls Prepare and Exchange.
// One thread at a time. Memory is bounded by the limits on records and bytes; of output there are two mebibytes and two
// records at most. A function that throws std::bad_alloc has forgotten no record; but answers may be lost with it, so the
// owner calls Drop then, and everything is sent again.
#ifndef QMLOGCACHE_CLIENT_CORE_SEND_ENGINE_H_
#define QMLOGCACHE_CLIENT_CORE_SEND_ENGINE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/core/host_connection.h"
#include "client/core/in_flight.h"
#include "plugin/compctx/guid.h"

struct SendSettings {
  std::string strSocket;
  GUID sender{};
  size_t uMaxRecords = kIngressDefaultWindow;  // handed in and not settled, at once
  size_t uMaxBytes = 32U << 20;                // of their payloads; one record is always taken
  // How long a record is sent again after its first failure, and how long a host that is away is waited for; none: for
  // ever.
  std::optional<std::chrono::milliseconds> retry;
  // Refusals that are the record's own fault are final; otherwise every refusal is tried again.
  bool bKnowsFinalRefusals = false;
};

enum class SendFailure {
  Refused,   // with a status: not taken
  TooLong,   // longer than the host takes
  NoAnswer,  // it may have been taken or not: no answer, status 0, or one that does not tell, or that is to a repeat
  NotSent,
};

// What happens, called from within the engine's functions, on their thread. The record is gone after the call. Only
// functions that change nothing may be called back.
class ISendEvents {
 public:
  virtual ~ISendEvents() = default;
  virtual void Accepted(const PendingRecord& record) = 0;
  virtual void Failed(const PendingRecord& record, SendFailure failure, uint32_t uStatus) = 0;
  // A refusal after which the record is tried again.
  virtual void Refused(uint32_t uStatus) = 0;
  virtual void Connected() = 0;
  virtual void Disconnected(const std::string& strWhy) = 0;
  virtual void CannotConnect(const std::string& strWhy) = 0;
  // The socket is about to be closed.
  virtual void Closing(int iSocket) = 0;
};

class CSendEngine {
 public:
  using Clock = std::chrono::steady_clock;

  // The events must outlive the engine, which calls them no more once it is being destroyed.
  CSendEngine(SendSettings settings, ISendEvents& events);

  bool IsReady() const { return m_connection.IsReady(); }
  const IngressWelcome& Welcome() const { return m_connection.Welcome(); }
  // A host that was away for longer than the retry time is not there yet. Everything handed in has failed.
  bool HasGivenUp() const { return m_bGivenUp; }
  void LimitRecords(size_t uMaxRecords) { m_inFlight.LimitRecords(uMaxRecords); }

  bool HasRoom() const { return m_inFlight.HasRoom(); }
  bool Empty() const { return m_inFlight.Empty(); }
  size_t Count() const { return m_inFlight.Count(); }
  // A record handed in now would be sent with the next Exchange.
  bool CanSend() const;

  // A record to be filled (type, payload, what it is known by) and given to Submit next. Needs room.
  PendingRecord& Take() { return m_inFlight.Take(); }
  // Records are sent in the order of submission. Strong exception guarantee: after bad_alloc the record is gone without
  // an event.
  void Submit(PendingRecord& record);

  // Connects if that is due, and brings what is to be sent again to the output.
  void Prepare(Clock::time_point now);
  // Sends and receives what can be.
  void Exchange();

  // For the wait between: -1 without a connection.
  int Descriptor() const { return m_connection.Descriptor(); }
  bool WantsToWrite() const { return m_connection.Unsent() > 0; }
  // When Prepare is due though nothing comes; none: not before the descriptor is ready.
  std::optional<Clock::time_point> NextTurn() const;

  // From now on a refusal and a lost connection are final.
  void StopRetrying() { m_bRetrying = false; }
  // Fails everything, in the order of submission.
  void GiveUp();
  // Ends the connection; what had no answer goes to the next one.
  void Drop(const std::string& strWhy);

 private:
  void Connect(Clock::time_point now);
  void Close();
  void ConnectionFailed(const std::string& strWhy, Clock::time_point now);
  void Lost(const std::string& strWhy, Clock::time_point now);
  void SendAgain(Clock::time_point now);
  void Send(PendingRecord& record);
  void HandleAnswers(Clock::time_point now);
  void HandleRefusal(PendingRecord& record, uint32_t uStatus, Clock::time_point now);
  bool TriesAgain(PendingRecord& record, Clock::time_point now, std::chrono::milliseconds delay);
  void FailRefused(PendingRecord& record, uint32_t uStatus);
  void Fail(PendingRecord& record, SendFailure failure, uint32_t uStatus);

  const SendSettings m_settings;
  ISendEvents& m_events;
  CHostConnection m_connection;
  CInFlight m_inFlight;
  std::vector<IngressAnswer> m_vecAnswers;
  uint64_t m_u64Order = 0;
  std::optional<Clock::time_point> m_awaySince;  // when the host was found away; none while it is not known to be
  Clock::time_point m_nextConnect{};
  Clock::time_point m_welcomeBy{};  // while the host owes its welcome
  std::chrono::milliseconds m_connectDelay;
  bool m_bRetrying = true;
  bool m_bGivenUp = false;
};

#endif  // QMLOGCACHE_CLIENT_CORE_SEND_ENGINE_H_
