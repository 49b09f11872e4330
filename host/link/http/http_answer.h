// What became of one request, and what that means for its records.
#ifndef QMLOGCACHE_HOST_LINK_HTTP_HTTP_ANSWER_H_
#define QMLOGCACHE_HOST_LINK_HTTP_HTTP_ANSWER_H_

#include <chrono>
#include <optional>
#include <string>

// How a request ended.
struct HttpAnswer {
  // There is a status. A good one counts only with the whole answer; of a bad one the header is enough, since a server
  // that refuses a request may close the connection on the rest.
  bool bAnswered = false;
  bool bSent = false;                              // the connection was there and the request began to go out
  bool bTimedOut = false;                          // without an answer
  long i64Status = 0;                              // of an answer
  std::string strError;                            // without one: what libcurl says
  std::optional<std::chrono::seconds> retryAfter;  // of an answer: what the server asks to wait, bounded
};

enum class AnswerKind {
  Delivered,    // 2xx
  Refused,      // 400, 413, 422: something in the batch is not to the server's liking
  TimedOut,     // sent, and no answer in time: delivered or not
  LinkTrouble,  // everything else, which no record is to blame for
};

AnswerKind JudgeAnswer(const HttpAnswer& answer);

// For the log: "HTTP status 503, to be tried again after 30 s". Throws std::bad_alloc.
std::string DescribeAnswer(const HttpAnswer& answer);

#endif  // QMLOGCACHE_HOST_LINK_HTTP_HTTP_ANSWER_H_
