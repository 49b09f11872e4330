// What a stream's answers mean, the watch over connection attempts, and the driver without a server.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <nats/nats.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <vector>

#include "host/link/nats/nats_answer.h"
#include "host/link/nats/nats_driver.h"
#include "host/link/nats/socket_watch.h"

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

// A connection on loopback that nobody speaks on.
class CSilence {
 public:
  CSilence() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t uLength = sizeof(address);
    EXPECT_EQ(bind(m_iListen, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(m_iListen, 4), 0);
    EXPECT_EQ(getsockname(m_iListen, reinterpret_cast<sockaddr*>(&m_address), &uLength), 0);
  }
  ~CSilence() { close(m_iListen); }
  CSilence(const CSilence&) = delete;
  CSilence& operator=(const CSilence&) = delete;

  uint16_t Port() const { return ntohs(m_address.sin_port); }
  int Connect() const {
    const int iFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(iFd, reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)), 0);
    return iFd;
  }

 private:
  const int m_iListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in m_address{};
};

// Whether nothing has come and nobody has hung up.
bool IsOpen(int iFd) {
  char c = 0;
  return recv(iFd, &c, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

TEST(SocketWatchTest, EndsWhatHangsBeyondTheLimitAndNothingElse) {
  const CSilence server;
  const CSilence otherServer;
  const int iBefore = server.Connect();
  int iNew = -1;
  int iOther = -1;
  {
    const CSocketWatch watch(server.Port(), std::chrono::milliseconds(50), [] { return false; });
    iNew = server.Connect();
    iOther = otherServer.Connect();
    char c = 0;
    EXPECT_EQ(recv(iNew, &c, 1, 0), 0);
    EXPECT_TRUE(watch.IsOver());
  }
  EXPECT_TRUE(IsOpen(iBefore));
  EXPECT_TRUE(IsOpen(iOther));
  for (const int iFd : {iBefore, iNew, iOther}) {
    close(iFd);
  }
}

TEST(SocketWatchTest, EndsAnAttemptThatIsWantedNoMore) {
  const CSilence server;
  std::atomic<bool> bCancelled = false;
  const CSocketWatch watch(server.Port(), std::chrono::hours(1), [&] { return bCancelled.load(); });
  const int iFd = server.Connect();
  EXPECT_TRUE(IsOpen(iFd));
  bCancelled = true;
  char c = 0;
  EXPECT_EQ(recv(iFd, &c, 1, 0), 0);
  EXPECT_FALSE(watch.IsOver());
  close(iFd);
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
