// What a stream's answers mean, and the driver without a server.
#include <gtest/gtest.h>
#include <nats/nats.h>

#include <vector>

#include "host/link/nats/nats_answer.h"
#include "host/link/nats/nats_driver.h"

namespace {

NatsAnswer Answer(int iStatus, int iErrorCode = 0, const std::string& strText = "") {
  NatsAnswer answer;
  answer.iStatus = iStatus;
  answer.iErrorCode = iErrorCode;
  answer.strText = strText;
  return answer;
}

TEST(NatsAnswerTest, AnAcknowledgementIsDelivery) {
  NatsAnswer answer;
  answer.bAcknowledged = true;
  EXPECT_EQ(JudgeNatsAnswer(answer), NatsAnswerKind::Delivered);
}

TEST(NatsAnswerTest, OnlySizeIsARecordsOwnFault) {
  EXPECT_EQ(JudgeNatsAnswer(Answer(NATS_ERR, JSStreamMessageExceedsMaximumErr)), NatsAnswerKind::TooLarge);
  EXPECT_EQ(JudgeNatsAnswer(Answer(NATS_MAX_PAYLOAD)), NatsAnswerKind::TooLarge);
  for (int iCode = JSAccountResourcesExceededErr; iCode <= JSConsumerReplicasExceedsStreamErr; ++iCode) {
    if (iCode != JSStreamMessageExceedsMaximumErr) {
      EXPECT_EQ(JudgeNatsAnswer(Answer(NATS_ERR, iCode)), NatsAnswerKind::LinkTrouble) << iCode;
      EXPECT_EQ(JudgeNatsAnswer(Answer(NATS_TIMEOUT, iCode)), NatsAnswerKind::LinkTrouble) << iCode;
    }
  }
  for (int iStatus = NATS_OK; iStatus <= NATS_MISSED_HEARTBEAT; ++iStatus) {
    if (iStatus != NATS_MAX_PAYLOAD && iStatus != NATS_TIMEOUT) {
      EXPECT_EQ(JudgeNatsAnswer(Answer(iStatus)), NatsAnswerKind::LinkTrouble) << iStatus;
    }
  }
}

TEST(NatsAnswerTest, NoAnswerInTimeIsATimeOut) {
  EXPECT_EQ(JudgeNatsAnswer(Answer(NATS_TIMEOUT)), NatsAnswerKind::TimedOut);
}

TEST(NatsAnswerTest, IsToldInWords) {
  EXPECT_EQ(DescribeNatsAnswer(Answer(NATS_NO_RESPONDERS)), "no stream takes the records' subjects");
  EXPECT_EQ(DescribeNatsAnswer(Answer(NATS_ERR, 10077, "maximum messages exceeded")),
            "error 10077 of the stream (maximum messages exceeded)");
  EXPECT_EQ(DescribeNatsAnswer(Answer(NATS_MISMATCH, 0, "OTHER")), "another stream has acknowledged a record (OTHER)");
  EXPECT_EQ(DescribeNatsAnswer(Answer(NATS_TIMEOUT)), "Timeout");
  EXPECT_EQ(DescribeNatsAnswer(Answer(NATS_TIMEOUT, 0, "Timeout")), "Timeout");
}

class CSilentEvents final : public ILinkEvents {
 public:
  void OnOutcome(const std::shared_ptr<LinkRecord>& /*pRecord*/, uint32_t /*uResult*/) override {}
  void OnGivenBack(std::vector<std::shared_ptr<LinkRecord>> /*vecRecords*/) override {}
  void OnUp() override {}
  void OnDown(const std::string& /*strReason*/) override {}
};

NatsDriverOptions GoodOptions() {
  NatsDriverOptions options;
  options.strServers = "nats://127.0.0.1:1";
  options.strStream = "s";
  options.strSubject = "p";
  options.strAgentId = "0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11";
  return options;
}

TEST(NatsDriverTest, DoesNotStartWithWhatCanNeverWork) {
  struct Row {
    void (*pfnSpoil)(NatsDriverOptions& options);
    const char* pszError;
  };
  for (const Row& row : std::vector<Row>{
           {[](NatsDriverOptions& o) { o.strServers = "http://a"; },
            "a server's scheme is http: only nats and tls are known"},
           {[](NatsDriverOptions& o) { o.strStream = ""; },
            "\"\" is no stream's name: 1 to 128 letters, digits, - and _"},
           {[](NatsDriverOptions& o) { o.strSubject = "*"; },
            "\"*\" is no subject prefix: letters, digits, - and _, in tokens with a dot in between"},
           {[](NatsDriverOptions& o) { o.strAgentId = "me"; }, "the agent's id is no UUID"},
           {[](NatsDriverOptions& o) { o.uPending = 0; }, "time-outs and pending records cannot be 0"},
           {[](NatsDriverOptions& o) { o.uTimeoutMs = 0; }, "time-outs and pending records cannot be 0"}}) {
    NatsDriverOptions options = GoodOptions();
    row.pfnSpoil(options);
    CSilentEvents events;
    std::string strError;
    EXPECT_FALSE(CreateNatsDriver(options)->Start(&events, strError));
    EXPECT_EQ(strError, row.pszError);
  }
}

TEST(NatsDriverTest, StartsAndStopsWithoutAServerAndAgain) {
  const std::unique_ptr<ILinkDriver> pDriver = CreateNatsDriver(GoodOptions());
  EXPECT_EQ(pDriver->Describe(), "nats nats://127.0.0.1:1 stream s");
  CSilentEvents events;
  std::string strError;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(pDriver->Start(&events, strError)) << strError;
    EXPECT_FALSE(pDriver->Start(&events, strError));
    EXPECT_EQ(strError, "already started");
    pDriver->Reopen();
    pDriver->Stop();
    pDriver->Stop();
    pDriver->Reopen();
  }
}

}  // namespace
