// The C interface against an ingress server with a fake router behind it.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "host/protocol/host_status.h"
#include "host/protocol/sender_guid.h"
#include "platform/status_codes.h"
#include "tests/unit/client/client_fixture.h"

namespace {

using Results = std::vector<Result>;

uint32_t NeverAnswer(const Delivery&) {
  return 0;
}

TEST_F(ClientTest, EveryRecordIsReportedOnceWithItsCookie) {
  Serve();
  Open();
  EXPECT_EQ(Send("one", 11), QM_CLIENT_OK);
  EXPECT_EQ(Send("two", 22), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{11, QM_CLIENT_ACCEPTED, 0}, {22, QM_CLIENT_ACCEPTED, 0}}));
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(qm_client_pending(m_pClient), 0U);
  EXPECT_EQ(m_iConnected, 1);
}

TEST_F(ClientTest, ARecordsFieldsMakeTheMessage) {
  Serve();
  Open();
  qm_client_record record = QM_CLIENT_RECORD_INIT;
  record.data = "x";
  record.length = 1;
  EXPECT_EQ(qm_client_send(m_pClient, &record, 0), QM_CLIENT_OK);
  record.kind = QM_CLIENT_EPP;
  record.priority = QM_CLIENT_REAL;
  record.flags = QM_CLIENT_PUBLIC;
  EXPECT_EQ(qm_client_send(m_pClient, &record, 0), QM_CLIENT_OK);
  record.flags = QM_CLIENT_NO_SAVE;
  record.product = "prod";
  record.combo = "comb";
  EXPECT_EQ(qm_client_send(m_pClient, &record, 0), QM_CLIENT_OK);
  ASSERT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  const auto vecDeliveries = m_pRouter->Deliveries();
  ASSERT_EQ(vecDeliveries.size(), 3U);
  const GUID sender = SenderGuid("a daemon");
  EXPECT_EQ(std::memcmp(&vecDeliveries[0].sender, &sender, sizeof(sender)), 0);
  EXPECT_EQ(vecDeliveries[0].uMsgType, 10101U);
  EXPECT_EQ(vecDeliveries[1].uMsgType, 10213U);
  EXPECT_EQ(vecDeliveries[2].uMsgType, 10300U);
  const std::string& strCombo = vecDeliveries[2].strPayload;
  ASSERT_EQ(strCombo.size(), 149U);
  EXPECT_EQ(strCombo[8], 2);
  EXPECT_STREQ(strCombo.data() + 16, "prod");
  EXPECT_STREQ(strCombo.data() + 80, "comb");
  EXPECT_EQ(strCombo[148], 'x');
}

TEST_F(ClientTest, ARefusalThatIsTheRecordsFaultIsReportedWithItsStatus) {
  Serve([](const Delivery& delivery) {
    delivery.Reply(delivery.strPayload == "bad" ? kHostNotAllowed : 0);
    return 0U;
  });
  Open();
  EXPECT_EQ(Send("bad", 1), QM_CLIENT_OK);
  EXPECT_EQ(Send("good", 2), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_REFUSED, kHostNotAllowed}, {2, QM_CLIENT_ACCEPTED, 0}}));
  EXPECT_STREQ(qm_client_status_text(kHostNotAllowed), "producers may not send this type");
}

TEST_F(ClientTest, ARefusalThatMayPassIsTriedAgain) {
  std::atomic<int> iRefusals{1};
  Serve([&](const Delivery& delivery) {
    delivery.Reply(iRefusals-- > 0 ? static_cast<uint32_t>(kStatusCountLimit) : 0);
    return 0U;
  });
  Open();
  EXPECT_EQ(Send("patient", 1), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_ACCEPTED, 0}}));
  EXPECT_EQ(DeliveryCount(), 2U);
}

TEST_F(ClientTest, WhatWasNeverSentKeepsItsOrderBehindOneThatWaitsForItsNextTry) {
  std::atomic<bool> bAnswer{false};
  m_options.uWindow = 1;
  Serve([&](const Delivery& delivery) {
    if (bAnswer) {
      delivery.Reply();
    }
    return 0U;
  });
  Open();
  EXPECT_EQ(Send("a", 1), QM_CLIENT_OK);
  ProcessUntil([&] { return DeliveryCount() == 1; });
  m_pRouter->Deliveries()[0].Reply(static_cast<uint32_t>(kStatusCountLimit));
  EXPECT_EQ(Send("b", 2), QM_CLIENT_OK);
  ProcessUntil([&] { return DeliveryCount() == 2; });
  EXPECT_EQ(Send("c", 3), QM_CLIENT_OK);
  bAnswer = true;
  m_pRouter->Deliveries()[1].Reply();
  ProcessUntil([&] { return m_vecResults.size() == 1; });
  EXPECT_EQ(Send("d", 4), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"a", "b", "c", "d", "a"}));
}

TEST_F(ClientTest, TheRetryTimeOfAHostBeginsWhenItIsFoundAway) {
  m_clientOptions.retry_ms = 20;
  Open();
  std::this_thread::sleep_for(std::chrono::milliseconds(40));
  EXPECT_EQ(Send("late", 1), QM_CLIENT_OK);
  EXPECT_TRUE(Said("cannot connect"));
  EXPECT_EQ(qm_client_pending(m_pClient), 1U);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_NOT_SENT, 0}}));
}

TEST_F(ClientTest, WithoutARetryTimeEveryRefusalIsFinal) {
  Serve([](const Delivery& delivery) {
    delivery.Reply(static_cast<uint32_t>(kStatusCountLimit));
    return 0U;
  });
  m_clientOptions.retry_ms = 0;
  Open();
  EXPECT_EQ(Send("x", 1), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_REFUSED, static_cast<uint32_t>(kStatusCountLimit)}}));
}

TEST_F(ClientTest, AnAnswerThatLeavesOpenWhetherTheRecordWasTakenIsNoRefusal) {
  Serve([](const Delivery& delivery) {
    delivery.Reply(kHostNoReply);
    return 0U;
  });
  m_clientOptions.retry_ms = 0;
  Open();
  EXPECT_EQ(Send("x", 1), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_NO_ANSWER, kHostNoReply}}));
}

TEST_F(ClientTest, ARepeatThatIsRefusedDoesNotTellThatNothingWasTaken) {
  std::atomic<bool> bFirst{true};
  Serve([&](const Delivery& delivery) {
    delivery.Reply(bFirst.exchange(false) ? kHostNoReply : static_cast<uint32_t>(kStatusCountLimit));
    return 0U;
  });
  m_clientOptions.retry_ms = 150;
  Open();
  EXPECT_EQ(Send("x", 1), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(DeliveryCount(), 2U);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_NO_ANSWER, static_cast<uint32_t>(kStatusCountLimit)}}));
}

TEST_F(ClientTest, CloseKeepsThatARecordMayHaveBeenTaken) {
  Serve([](const Delivery& delivery) {
    delivery.Reply(kHostNoReply);
    return 0U;
  });
  Open();
  EXPECT_EQ(Send("x", 1), QM_CLIENT_OK);
  ProcessUntil([&] { return DeliveryCount() == 1; });
  EXPECT_EQ(qm_client_close(m_pClient, 200), QM_CLIENT_E_TIMEOUT);
  m_pClient = nullptr;
  ASSERT_EQ(m_vecResults.size(), 1U);
  EXPECT_EQ(m_vecResults[0].outcome, QM_CLIENT_NO_ANSWER);
}

TEST_F(ClientTest, AFullClientTakesNothingUntilThereIsRoom) {
  Serve(NeverAnswer);
  m_clientOptions.max_records = 2;
  Open();
  EXPECT_EQ(Send("a", 1), QM_CLIENT_OK);
  EXPECT_EQ(Send("b", 2), QM_CLIENT_OK);
  EXPECT_EQ(Send("c", 3), QM_CLIENT_E_TIMEOUT);
  EXPECT_EQ(Send("c", 3, 20), QM_CLIENT_E_TIMEOUT);
  EXPECT_EQ(qm_client_pending(m_pClient), 2U);
  ProcessUntil([&] { return DeliveryCount() == 2; });
  m_pRouter->Deliveries()[0].Reply();
  EXPECT_EQ(Send("c", 3, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_ACCEPTED, 0}}));
  ProcessUntil([&] { return DeliveryCount() == 3; });
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(ClientTest, BytesAreLimitedTooButOneRecordIsAlwaysTaken) {
  Serve(NeverAnswer);
  m_clientOptions.max_bytes = 10;
  Open();
  EXPECT_EQ(Send(std::string(1000, 'x')), QM_CLIENT_OK);
  EXPECT_EQ(Send("y"), QM_CLIENT_E_TIMEOUT);
}

TEST_F(ClientTest, TheHostsWindowIsKeptThoughTheClientHoldsMore) {
  m_options.uWindow = 4;
  Serve();
  Open();
  std::vector<std::string> vecExpected;
  for (int i = 0; i < 1000; ++i) {
    vecExpected.push_back("record " + std::to_string(i));
    ASSERT_EQ(Send(vecExpected.back(), static_cast<uint64_t>(i), kPatienceMs), QM_CLIENT_OK);
  }
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_TRUE(Payloads() == vecExpected);
  EXPECT_EQ(m_vecResults.size(), 1000U);
  EXPECT_TRUE(m_vecReasons.empty());
}

TEST_F(ClientTest, RecordsWaitForAHostThatIsNotThereYet) {
  Open();
  EXPECT_EQ(Send("early", 1), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, 20), QM_CLIENT_E_TIMEOUT);
  EXPECT_TRUE(Said("cannot connect to '" + Path() + "'"));
  EXPECT_TRUE(m_vecResults.empty());
  Serve();
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_ACCEPTED, 0}}));
}

TEST_F(ClientTest, WhatHadNoAnswerGoesToTheNextHostInOrder) {
  Serve(NeverAnswer);
  Open();
  EXPECT_EQ(Send("a", 1), QM_CLIENT_OK);
  EXPECT_EQ(Send("b", 2), QM_CLIENT_OK);
  EXPECT_EQ(Send("c", 3), QM_CLIENT_OK);
  ProcessUntil([&] { return DeliveryCount() == 3; });
  m_pRouter->Deliveries()[1].Reply();
  ProcessUntil([&] { return m_vecResults.size() == 1; });
  StopServer();
  EXPECT_EQ(Send("d", 4), QM_CLIENT_OK);  // SIGPIPE would end the test
  Serve();
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"a", "c", "d"}));
  EXPECT_EQ(m_vecResults, (Results{{2, QM_CLIENT_ACCEPTED, 0},
                                   {1, QM_CLIENT_ACCEPTED, 0},
                                   {3, QM_CLIENT_ACCEPTED, 0},
                                   {4, QM_CLIENT_ACCEPTED, 0}}));
  EXPECT_EQ(m_iConnected, 2);
  EXPECT_TRUE(Said("the host is stopping"));
}

TEST_F(ClientTest, WithoutARetryTimeALostConnectionEndsWhatItHeldAndTheClientGoesOn) {
  Serve(NeverAnswer);
  m_clientOptions.retry_ms = 0;
  Open();
  EXPECT_EQ(Send("a", 1), QM_CLIENT_OK);
  ProcessUntil([&] { return DeliveryCount() == 1; });
  StopServer();
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(Send("b", 2), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_NO_ANSWER, 0}, {2, QM_CLIENT_NOT_SENT, 0}}));
  Serve();
  pollfd descriptor{qm_client_fd(m_pClient), POLLIN, 0};
  while (m_iConnected < 2) {
    ASSERT_EQ(::poll(&descriptor, 1, kPatienceMs), 1);
    ASSERT_EQ(qm_client_process(m_pClient, 0), 0);
  }
}

TEST_F(ClientTest, CloseWaitsAndThenReportsWhatIsLeft) {
  Serve([](const Delivery& delivery) {
    if (delivery.strPayload == "answered") {
      delivery.Reply();
    }
    return 0U;
  });
  Open();
  EXPECT_EQ(Send("answered", 1), QM_CLIENT_OK);
  EXPECT_EQ(Send("unanswered", 2), QM_CLIENT_OK);
  ProcessUntil([&] { return m_vecResults.size() == 1; });
  EXPECT_EQ(qm_client_close(m_pClient, 20), QM_CLIENT_E_TIMEOUT);
  m_pClient = nullptr;
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_ACCEPTED, 0}, {2, QM_CLIENT_NO_ANSWER, 0}}));
}

TEST_F(ClientTest, CloseReportsWhatWasNeverSent) {
  Open();
  EXPECT_EQ(Send("never", 7), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_close(m_pClient, 0), QM_CLIENT_E_TIMEOUT);
  m_pClient = nullptr;
  EXPECT_EQ(m_vecResults, (Results{{7, QM_CLIENT_NOT_SENT, 0}}));
  EXPECT_EQ(qm_client_close(nullptr, 0), QM_CLIENT_OK);
}

TEST_F(ClientTest, ADescriptorTellsWhenThereIsWork) {
  Serve();
  Open();
  const int iDescriptor = qm_client_fd(m_pClient);
  ASSERT_GE(iDescriptor, 0);
  pollfd descriptor{iDescriptor, POLLIN, 0};
  for (const uint64_t u64Round : {1, 2}) {
    EXPECT_EQ(Send("round", u64Round), QM_CLIENT_OK);
    while (m_vecResults.size() < u64Round) {
      ASSERT_EQ(::poll(&descriptor, 1, kPatienceMs), 1);
      ASSERT_GE(qm_client_process(m_pClient, 0), 0);
    }
    EXPECT_EQ(qm_client_fd(m_pClient), iDescriptor);
    StopServer();
    Serve();
  }
  // It says that the connection is gone, too, and rests when all is quiet.
  while (m_iConnected < 3) {
    ASSERT_EQ(::poll(&descriptor, 1, kPatienceMs), 1);
    ASSERT_EQ(qm_client_process(m_pClient, 0), 0);
  }
  EXPECT_EQ(::poll(&descriptor, 1, 0), 0);
}

TEST_F(ClientTest, WrongArgumentsAreRefused) {
  const qm_client_options good = m_clientOptions;
  EXPECT_EQ(qm_client_open(&good, nullptr), QM_CLIENT_E_ARGUMENT);
  EXPECT_EQ(qm_client_open(nullptr, &m_pClient), QM_CLIENT_E_ARGUMENT);
  const std::string strLong(200, 's');
  for (int i = 0; i < 7; ++i) {
    qm_client_options bad = good;
    bad.socket = i == 0 ? nullptr : i == 1 ? "" : i == 2 ? strLong.c_str() : bad.socket;
    bad.sender = i == 3 ? nullptr : i == 4 ? "" : bad.sender;
    bad.max_records = i == 5 ? 0 : i == 6 ? 65537 : bad.max_records;
    EXPECT_EQ(qm_client_open(&bad, &m_pClient), QM_CLIENT_E_ARGUMENT) << i;
    EXPECT_EQ(m_pClient, nullptr);
  }
  EXPECT_EQ(Send("x"), QM_CLIENT_E_ARGUMENT);
  EXPECT_EQ(qm_client_process(nullptr, 0), QM_CLIENT_E_ARGUMENT);
  EXPECT_EQ(qm_client_flush(nullptr, 0), QM_CLIENT_E_ARGUMENT);
  EXPECT_EQ(qm_client_fd(nullptr), -1);
  EXPECT_EQ(qm_client_pending(nullptr), 0U);
}

TEST_F(ClientTest, ARecordThatCannotBeSentIsRefusedAndTheNextIsTaken) {
  m_options.uMaxFrame = 1000;
  Serve();
  Open();
  EXPECT_EQ(Send("first"), QM_CLIENT_OK);
  ASSERT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(Send(""), QM_CLIENT_E_EMPTY);
  EXPECT_EQ(Send(std::string("a\0b", 3)), QM_CLIENT_E_ZERO_BYTE);
  EXPECT_EQ(Send(std::string(1000 - 31, 'l')), QM_CLIENT_E_TOO_LONG);
  EXPECT_EQ(qm_client_send(m_pClient, nullptr, 0), QM_CLIENT_E_ARGUMENT);
  const std::string strName(64, 'n');
  for (int i = 0; i < 7; ++i) {
    qm_client_record bad = QM_CLIENT_RECORD_INIT;
    bad.data = i == 0 ? nullptr : "x";
    bad.length = 1;
    bad.kind = i == 1 ? 0 : i == 2 ? 4 : bad.kind;
    bad.priority = i == 3 ? -1 : i == 4 ? 4 : bad.priority;
    bad.flags = i == 5 ? 4 : 0;
    bad.product = i == 6 ? strName.c_str() : nullptr;
    EXPECT_EQ(qm_client_send(m_pClient, &bad, 0), QM_CLIENT_E_ARGUMENT) << i;
  }
  EXPECT_EQ(qm_client_pending(m_pClient), 0U);
  EXPECT_EQ(Send(std::string(1000 - 32, 'l')), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(DeliveryCount(), 2U);
}

TEST_F(ClientTest, ARecordThatTurnsOutTooLongIsReported) {
  Open();
  EXPECT_EQ(Send(std::string(2000, 'l'), 1), QM_CLIENT_OK);
  EXPECT_EQ(Send("short", 2), QM_CLIENT_OK);
  m_options.uMaxFrame = 1000;
  Serve();
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_OVERLONG, 0}, {2, QM_CLIENT_ACCEPTED, 0}}));
}

TEST_F(ClientTest, ARecordThatAnEarlierHostMayHaveTakenIsNotReportedAsUnsent) {
  Serve(NeverAnswer);
  Open();
  EXPECT_EQ(Send(std::string(2000, 'l'), 1), QM_CLIENT_OK);
  ProcessUntil([&] { return DeliveryCount() == 1; });
  StopServer();
  m_options.uMaxFrame = 1000;
  Serve();
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(m_vecResults, (Results{{1, QM_CLIENT_NO_ANSWER, 0}}));
}

TEST_F(ClientTest, ACallFromTheCallbackFindsTheClientBusy) {
  Serve();
  Open();
  std::vector<int> vecErrors;
  m_fnOnResult = [&] {
    vecErrors = {Send("nested"), qm_client_process(m_pClient, 0), qm_client_flush(m_pClient, 0),
                 qm_client_close(m_pClient, 0)};
  };
  EXPECT_EQ(Send("outer"), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(vecErrors, std::vector<int>(4, QM_CLIENT_E_BUSY));
  EXPECT_EQ(DeliveryCount(), 1U);
}

TEST_F(ClientTest, AChildProcessCannotDisturbTheParentsClient) {
  Serve();
  Open();
  EXPECT_EQ(Send("before"), QM_CLIENT_OK);
  ASSERT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  const pid_t iChild = ::fork();
  if (iChild == 0) {
    const bool bForked = Send("child") == QM_CLIENT_E_FORKED &&
                         qm_client_process(m_pClient, -1) == QM_CLIENT_E_FORKED &&
                         qm_client_flush(m_pClient, -1) == QM_CLIENT_E_FORKED && qm_client_fd(m_pClient) == -1 &&
                         qm_client_pending(m_pClient) == 0 && qm_client_close(m_pClient, -1) == QM_CLIENT_E_FORKED;
    ::_exit(bForked ? 0 : 1);
  }
  int iStatus = -1;
  ASSERT_EQ(::waitpid(iChild, &iStatus, 0), iChild);
  EXPECT_EQ(iStatus, 0);
  EXPECT_EQ(Send("after"), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"before", "after"}));
  EXPECT_EQ(m_iConnected, 1);
}

TEST_F(ClientTest, EveryErrorHasAText) {
  for (int i = QM_CLIENT_E_FORKED; i <= QM_CLIENT_OK; ++i) {
    EXPECT_STRNE(qm_client_error_text(i), "unknown error") << i;
  }
  EXPECT_STREQ(qm_client_error_text(QM_CLIENT_E_FORKED - 1), "unknown error");
  EXPECT_STREQ(qm_client_error_text(1), "unknown error");
  EXPECT_STREQ(qm_client_error_text(QM_CLIENT_E_TIMEOUT), "the time is over");
  EXPECT_STREQ(qm_client_status_text(0), "accepted");
  EXPECT_STREQ(qm_client_status_text(12345), "refused for a reason this library does not know");
  EXPECT_EQ(std::string(qm_client_version()),
            std::to_string(QM_CLIENT_VERSION_MAJOR) + "." + std::to_string(QM_CLIENT_VERSION_MINOR));
}

}  // namespace
