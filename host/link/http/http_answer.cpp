#include "host/link/http/http_answer.h"

AnswerKind JudgeAnswer(const HttpAnswer& answer) {
  if (!answer.bAnswered) {
    // A connection that could not be made in time is no different from one that was refused.
    return answer.bTimedOut && answer.bSent ? AnswerKind::TimedOut : AnswerKind::LinkTrouble;
  }
  if (answer.i64Status >= 200 && answer.i64Status <= 299) {
    return AnswerKind::Delivered;
  }
  switch (answer.i64Status) {
    case 400:
    case 413:
    case 422:
      return AnswerKind::Refused;
    default:
      return AnswerKind::LinkTrouble;
  }
}

std::string DescribeAnswer(const HttpAnswer& answer) {
  if (!answer.bAnswered) {
    return answer.strError.empty() ? "the request failed" : answer.strError;
  }
  std::string strText = "HTTP status " + std::to_string(answer.i64Status);
  if (answer.retryAfter) {
    strText += ", to be tried again after " + std::to_string(answer.retryAfter->count()) + " s";
  }
  return strText;
}
