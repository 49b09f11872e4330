// What a stream answered to one record, and what that means for it.
#ifndef QMLOGCACHE_HOST_LINK_NATS_NATS_ANSWER_H_
#define QMLOGCACHE_HOST_LINK_NATS_NATS_ANSWER_H_

#include <string>

// As libnats tells it, without its headers.
struct NatsAnswer {
  bool bAcknowledged = false;  // the agent's stream holds the record, be it since now or since an earlier time
  int iStatus = 0;             // otherwise: a natsStatus; NATS_MISMATCH when another stream has acknowledged it
  int iErrorCode = 0;          // and a jsErrCode, 0 when the answer is not the stream's
  std::string strText;         // and words of the server or of libnats, or that stream's name; may be empty
};

enum class NatsAnswerKind {
  Delivered,
  TooLarge,     // larger than a message of this stream or this server may be
  TimedOut,     // sent, and no acknowledgement in time: delivered or not
  LinkTrouble,  // everything else, which no record is to blame for
};

NatsAnswerKind JudgeNatsAnswer(const NatsAnswer& answer);

// For the log: "no stream takes these subjects (No responders available for request)". Throws std::bad_alloc.
std::string DescribeNatsAnswer(const NatsAnswer& answer);

#endif  // QMLOGCACHE_HOST_LINK_NATS_NATS_ANSWER_H_
