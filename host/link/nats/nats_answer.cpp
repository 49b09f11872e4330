#include "host/link/nats/nats_answer.h"

#include <nats/nats.h>

NatsAnswerKind JudgeNatsAnswer(const NatsAnswer& answer) {
  if (answer.bAcknowledged) {
    return NatsAnswerKind::Delivered;
  }
  if (answer.iErrorCode == JSStreamMessageExceedsMaximumErr || answer.iStatus == NATS_MAX_PAYLOAD) {
    return NatsAnswerKind::TooLarge;
  }
  // With an error code it is the stream's own answer, whatever it says about time.
  if (answer.iStatus == NATS_TIMEOUT && answer.iErrorCode == 0) {
    return NatsAnswerKind::TimedOut;
  }
  return NatsAnswerKind::LinkTrouble;
}

std::string DescribeNatsAnswer(const NatsAnswer& answer) {
  std::string strWhat;
  if (answer.iStatus == NATS_NO_RESPONDERS) {
    strWhat = "no stream takes the records' subjects";
  } else if (answer.iStatus == NATS_MISMATCH && answer.iErrorCode == 0) {
    strWhat = "another stream has acknowledged a record";
  } else if (answer.iErrorCode != 0) {
    strWhat = "error " + std::to_string(answer.iErrorCode) + " of the stream";
  } else {
    strWhat = natsStatus_GetText(static_cast<natsStatus>(answer.iStatus));
  }
  if (!answer.strText.empty() && answer.strText != strWhat) {
    strWhat.append(" (").append(answer.strText).append(")");
  }
  return strWhat;
}
