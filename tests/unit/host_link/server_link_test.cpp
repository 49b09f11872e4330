#include "host/link/server_link.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "fake_router.h"
#include "link_test_support.h"
#include "log_capture.h"
#include "plugin/compctx/guid.h"

namespace {

constexpr char kTimeout[] = "e0010019";

class ServerLinkTest : public ::testing::Test {
 protected:
  ServerLinkTest() {
    ClearLog();
    auto pDriver = std::make_unique<CFakeDriver>(Context());
    m_pDriver = pDriver.get();
    m_pLink = CreateServerLink(m_router, std::move(pDriver));
  }

  void Start() {
    std::string strError;
    ASSERT_TRUE(m_pLink->Start(strError)) << strError;
    Context().TakeJournal();
  }
  void StartUp() {
    Start();
    Events().OnUp();
    Context().TakeJournal();
  }
  // Uses up the answers of the outage that lasts.
  void SpendAnswers() {
    for (unsigned int i = 0; i < kAnsweredPerOutage; ++i) {
      Arrive(0xf000 + i);
    }
    Context().TakeJournal();
  }
  void Arrive(uint64_t u64DataId) { Context().Arrive(MakeText(u64DataId, "data")); }
  CFakeContext& Context() { return *m_router.m_pContext; }
  ILinkEvents& Events() { return *m_pDriver->m_pEvents; }
  FakeJournal Journal() { return Context().TakeJournal(); }

  CFakeRouter m_router;
  CFakeDriver* m_pDriver = nullptr;
  std::unique_ptr<IServerLink> m_pLink;
};

TEST_F(ServerLinkTest, RegistersUnderTheDestinationGuidBeforeTheDriverStarts) {
  std::string strError;
  ASSERT_TRUE(m_pLink->Start(strError));
  EXPECT_EQ(Journal(), (FakeJournal{"initialize", "handler set", "receive 20002", "driver start"}));
  GUID guid{};
  ASSERT_TRUE(ParseGuid(kServerLinkGuidText, guid));
  EXPECT_EQ(std::memcmp(&guid, &Context().m_guid, sizeof(guid)), 0);
  EXPECT_EQ(Context().m_pUserContext, static_cast<IComponentContext*>(&Context()));
}

TEST_F(ServerLinkTest, EndsTheRegistrationThenTheDriverThenTheRest) {
  StartUp();
  m_pLink->Stop();
  EXPECT_EQ(Journal(), (FakeJournal{"unreceive 20002", "driver stop", "handler removed", "uninitialize"}));
  m_pLink->Stop();
  EXPECT_EQ(Journal(), FakeJournal());
}

TEST_F(ServerLinkTest, TakesTheRegistrationBackWhenTheDriverCannotWork) {
  m_pDriver->m_strStartError = "no such thing";
  std::string strError;
  EXPECT_FALSE(m_pLink->Start(strError));
  EXPECT_EQ(strError, "no such thing");
  EXPECT_EQ(Journal(), (FakeJournal{"initialize", "handler set", "receive 20002", "driver start", "unreceive 20002",
                                    "handler removed", "uninitialize"}));
}

TEST_F(ServerLinkTest, SaysWhyTheRouterRefusedIt) {
  Context().m_uInitializeStatus = kHostAlreadyTaken;
  std::string strError;
  EXPECT_FALSE(m_pLink->Start(strError));
  EXPECT_EQ(strError, "the router refused Initialize: e0020006");
}

TEST_F(ServerLinkTest, StartsAgainAfterAStop) {
  StartUp();
  m_pLink->Stop();
  Start();
  EXPECT_FALSE(m_pLink->GetCounts().bUp);
  Events().OnUp();
  Arrive(1);
  EXPECT_EQ(Journal(), (FakeJournal{"broadcast 1000", "reply 0 success", "deliver 1"}));
}

TEST_F(ServerLinkTest, AcceptsThenDeliversThenSendsOneResult) {
  StartUp();
  Arrive(0xab);
  EXPECT_EQ(Journal(), (FakeJournal{"reply 0 success", "deliver ab"}));
  EXPECT_EQ(m_pLink->GetCounts().u64Held, 1U);
  Events().OnOutcome(m_pDriver->Taken()[0], 0);
  EXPECT_EQ(Journal(), (FakeJournal{"result ab 0"}));
  const ServerLinkCounts counts = m_pLink->GetCounts();
  EXPECT_EQ(counts.u64Received, 1U);
  EXPECT_EQ(counts.u64Delivered, 1U);
  EXPECT_EQ(counts.u64Held, 0U);
}

TEST_F(ServerLinkTest, ARowOfDeliveredRecordsGivesEachOneResultAndTheRestNone) {
  constexpr size_t kRecords = 150;
  constexpr size_t kDelivered = 149;
  StartUp();
  for (uint64_t u64DataId = 1; u64DataId <= kRecords; ++u64DataId) {
    Arrive(u64DataId);
  }
  const auto vecRecords = m_pDriver->Taken();
  ASSERT_EQ(vecRecords.size(), kRecords);
  Events().OnOutcome(vecRecords[1], 0xB0010025);
  Journal();
  Events().OnDelivered(vecRecords, kDelivered);
  Events().OnDelivered(vecRecords, kDelivered);
  FakeJournal expected;
  for (uint64_t u64DataId = 1; u64DataId <= kDelivered; ++u64DataId) {
    if (u64DataId != 2) {
      std::array<char, 32> acLine;
      snprintf(acLine.data(), acLine.size(), "result %llx 0", static_cast<unsigned long long>(u64DataId));
      expected.emplace_back(acLine.data());
    }
  }
  EXPECT_EQ(Journal(), expected);
  const ServerLinkCounts counts = m_pLink->GetCounts();
  EXPECT_EQ(counts.u64Delivered, kDelivered - 1);
  EXPECT_EQ(counts.u64Retried, 1U);
  EXPECT_EQ(counts.u64Held, 1U);
}

TEST_F(ServerLinkTest, HandsTheDriverTheTextTheFieldsAndTheSender) {
  StartUp();
  const GUID sender = {0x11223344, 0x5566, 0x7788, {1, 2, 3, 4, 5, 6, 7, 8}};
  const std::string strText = MakeText(0x1f, "a><end=1><msg=b", "prod", "combo", 13, 3);
  Context().Arrive(strText, sender);
  const auto pRecord = m_pDriver->Taken().at(0);
  EXPECT_EQ(pRecord->strText, strText);
  EXPECT_EQ(pRecord->tags.svMessage, "a><end=1><msg=b");
  EXPECT_EQ(pRecord->tags.svProduct, "prod");
  EXPECT_EQ(pRecord->tags.iPriv, 13);
  EXPECT_GE(pRecord->tags.svMessage.data(), pRecord->strText.data());
  EXPECT_LT(pRecord->tags.svMessage.data(), pRecord->strText.data() + pRecord->strText.size());
  EXPECT_EQ(std::memcmp(&pRecord->sender, &sender, sizeof(sender)), 0);
  EXPECT_GT(pRecord->i64ReceivedUs, 1600000000000000);
}

TEST_F(ServerLinkTest, SendsAResultOf32BytesToTheSender) {
  StartUp();
  const GUID sender = {0x11223344, 0x5566, 0x7788, {1, 2, 3, 4, 5, 6, 7, 8}};
  Context().Arrive(MakeText(0x1122334455667788, "d"), sender);
  Events().OnOutcome(m_pDriver->Taken()[0], 0xB0010025);
  EXPECT_EQ(Context().m_strLastPayload,
            std::string("\0\0\0\0\x25\x00\x01\xb0\x88\x77\x66\x55\x44\x33\x22\x11", 16) + std::string(16, '\0'));
  EXPECT_EQ(Context().m_uLastType, 20003U);
  EXPECT_FALSE(Context().m_bLastHadCompletion);
  EXPECT_EQ(std::memcmp(&Context().m_lastDest, &sender, sizeof(sender)), 0);
  EXPECT_EQ(Context().m_i64ReplyType, 20002);
  EXPECT_EQ(Context().m_pReplyHandle, &Context().m_iHandle);
}

TEST_F(ServerLinkTest, CountsOutcomesByWhatTheSenderDoesWithThem) {
  StartUp();
  for (uint64_t i = 1; i <= 5; ++i) {
    Arrive(i);
  }
  const auto vecRecords = m_pDriver->Taken();
  Events().OnOutcome(vecRecords[0], 0);
  Events().OnOutcome(vecRecords[1], kHostSendTimeout);
  Events().OnOutcome(vecRecords[2], 0xB0010025);
  Events().OnOutcome(vecRecords[3], 0xB0010026);
  Events().OnOutcome(vecRecords[4], 1);
  const ServerLinkCounts counts = m_pLink->GetCounts();
  EXPECT_EQ(counts.u64Received, 5U);
  EXPECT_EQ(counts.u64Delivered, 1U);
  EXPECT_EQ(counts.u64Retried, 3U);
  EXPECT_EQ(counts.u64Rejected, 1U);
  EXPECT_EQ(counts.u64Held, 0U);
}

TEST_F(ServerLinkTest, RefusesATextItCannotRead) {
  StartUp();
  Context().Arrive("<version=1><dataid=0>");
  Context().Arrive("");
  EXPECT_EQ(Journal(), (FakeJournal{"reply a0020001 fail", "reply a0020001 fail"}));
  EXPECT_EQ(m_pLink->GetCounts().u64Rejected, 2U);
  EXPECT_EQ(m_pLink->GetCounts().u64Held, 0U);
  Context().m_pReceiver->ReceiveCallback(GUID{}, 20002, nullptr, 5, &Context().m_iHandle, nullptr);
  EXPECT_EQ(Journal(), (FakeJournal{"reply a0020001 fail"}));
}

TEST_F(ServerLinkTest, TakesARecordWhoseSenderExpectsNoAnswer) {
  StartUp();
  Context().Arrive(MakeText(1, "d"), GUID{}, false);
  EXPECT_EQ(Journal(), (FakeJournal{"deliver 1"}));
}

TEST_F(ServerLinkTest, LeavesARecordWhoseSendHasEndedToItsSender) {
  StartUp();
  Context().m_uReplyStatus = kHostBadArgument;
  Arrive(1);
  EXPECT_EQ(Journal(), (FakeJournal{"reply 0 success"}));
  EXPECT_EQ(m_pLink->GetCounts().u64Received, 0U);
}

TEST_F(ServerLinkTest, AnswersTwentyRecordsOfTheFirstOutageAndHoldsTheOthers) {
  Start();
  FakeJournal expected;
  for (uint64_t i = 1; i <= 25; ++i) {
    Arrive(i);
    char acText[64];
    expected.emplace_back("reply 0 success");
    if (i <= 20) {
      snprintf(acText, sizeof(acText), "result %llx %s", static_cast<unsigned long long>(i), kTimeout);
      expected.emplace_back(acText);
    }
  }
  EXPECT_EQ(Journal(), expected);
  EXPECT_EQ(m_pLink->GetCounts().u64Held, 5U);
  EXPECT_EQ(m_pLink->GetCounts().u64Retried, 20U);
}

TEST_F(ServerLinkTest, DeliversHeldRecordsInOrderBeforeTheBroadcast) {
  Start();
  SpendAnswers();
  for (uint64_t i = 1; i <= 4; ++i) {
    Arrive(i);
  }
  Journal();
  Events().OnUp();
  EXPECT_EQ(Journal(), (FakeJournal{"deliver 1", "deliver 2", "deliver 3", "deliver 4", "broadcast 1000"}));
  Events().OnUp();
  EXPECT_EQ(Journal(), FakeJournal());
}

TEST_F(ServerLinkTest, AnswersTheOldestOfThoseGivenBackThenHolds) {
  StartUp();
  for (uint64_t i = 1; i <= 30; ++i) {
    Arrive(i);
  }
  Journal();
  Events().OnDown("cable");
  Events().OnGivenBack(m_pDriver->TakeAll());
  FakeJournal expected;
  for (unsigned int i = 1; i <= 20; ++i) {
    char acText[64];
    snprintf(acText, sizeof(acText), "result %x %s", i, kTimeout);
    expected.emplace_back(acText);
  }
  EXPECT_EQ(Journal(), expected);
  Arrive(0x100);
  EXPECT_EQ(Journal(), (FakeJournal{"reply 0 success"}));
  Events().OnUp();
  EXPECT_EQ(Journal(),
            (FakeJournal{"deliver 15", "deliver 16", "deliver 17", "deliver 18", "deliver 19", "deliver 1a",
                         "deliver 1b", "deliver 1c", "deliver 1d", "deliver 1e", "deliver 100", "broadcast 1000"}));
}

TEST_F(ServerLinkTest, PutsWhatIsGivenBackLateBeforeWhatArrivedLater) {
  StartUp();
  Arrive(1);
  Arrive(2);
  Arrive(3);
  const auto vecTaken = m_pDriver->Taken();
  Events().OnDown("cable");
  SpendAnswers();
  Arrive(4);
  Events().OnGivenBack({vecTaken[2]});
  Events().OnGivenBack({vecTaken[1], vecTaken[0]});
  Journal();
  Events().OnUp();
  EXPECT_EQ(Journal(), (FakeJournal{"deliver 1", "deliver 2", "deliver 3", "deliver 4", "broadcast 1000"}));
}

TEST_F(ServerLinkTest, SharesOneBudgetBetweenRecordsGivenBackAndArriving) {
  StartUp();
  for (uint64_t i = 1; i <= 15; ++i) {
    Arrive(i);
  }
  Events().OnDown("cable");
  Events().OnGivenBack(m_pDriver->TakeAll());
  for (uint64_t i = 16; i <= 40; ++i) {
    Arrive(i);
  }
  EXPECT_EQ(m_pLink->GetCounts().u64Retried, 20U);
  EXPECT_EQ(m_pLink->GetCounts().u64Held, 20U);
}

TEST_F(ServerLinkTest, RenewsTheBudgetWithEachOutageAlone) {
  Start();
  SpendAnswers();
  Events().OnDown("again");
  Events().OnDown("and again");
  Arrive(1);
  EXPECT_EQ(Journal(), (FakeJournal{"reply 0 success"}));
  Events().OnUp();
  Events().OnDown("a second outage");
  Arrive(2);
  Arrive(3);
  EXPECT_EQ(m_pLink->GetCounts().u64Retried, 22U);
}

TEST_F(ServerLinkTest, DeliversAtOnceWhatIsGivenBackWhileUp) {
  StartUp();
  Arrive(1);
  Arrive(2);
  Journal();
  Events().OnGivenBack(m_pDriver->TakeAll());
  EXPECT_EQ(Journal(), (FakeJournal{"deliver 1", "deliver 2"}));
}

TEST_F(ServerLinkTest, AnswersOnceWhenTheDriverDoublesAnOutcome) {
  StartUp();
  Arrive(1);
  const auto pRecord = m_pDriver->Taken()[0];
  Events().OnOutcome(pRecord, 0);
  Events().OnOutcome(pRecord, 1);
  Events().OnGivenBack({pRecord, pRecord, nullptr});
  Events().OnOutcome(nullptr, 0);
  EXPECT_EQ(Journal(), (FakeJournal{"reply 0 success", "deliver 1", "result 1 0"}));
  EXPECT_EQ(m_pLink->GetCounts().u64Held, 0U);
}

TEST_F(ServerLinkTest, IgnoresAnOutcomeForARecordGivenBack) {
  StartUp();
  Events().OnDown("cable");
  SpendAnswers();
  Events().OnUp();
  Arrive(1);
  const auto pRecord = m_pDriver->TakeAll().back();
  Events().OnDown("cable");
  for (uint64_t i = 0; i < kAnsweredPerOutage; ++i) {
    Arrive(0xe00 + i);
  }
  Journal();
  Events().OnGivenBack({pRecord});
  Events().OnOutcome(pRecord, 0);
  EXPECT_EQ(Journal(), FakeJournal());
  Events().OnUp();
  EXPECT_EQ(Journal(), (FakeJournal{"deliver 1", "broadcast 1000"}));
  Events().OnOutcome(pRecord, 0);
  EXPECT_EQ(Journal(), (FakeJournal{"result 1 0"}));
}

TEST_F(ServerLinkTest, TriesAResultAgainUntilTheRouterHasMemoryForIt) {
  StartUp();
  Arrive(1);
  Arrive(2);
  const auto vecTaken = m_pDriver->TakeAll();
  Journal();
  Context().AnswerSends(kHostNoMemory);
  Events().OnOutcome(vecTaken[0], 0);
  Events().OnOutcome(vecTaken[1], 5);
  ASSERT_TRUE(Context().WaitForSends(4));
  Context().AnswerSends(kHostOk);
  ASSERT_TRUE(Context().WaitForSends(2));
  EXPECT_EQ(Journal(), (FakeJournal{"result 1 0", "result 2 5"}));
  m_pLink->Stop();
  EXPECT_EQ(Journal(), (FakeJournal{"unreceive 20002", "driver stop", "handler removed", "uninitialize"}));
}

TEST_F(ServerLinkTest, TriesResultsThatAreLeftOnceMoreWhenItStops) {
  StartUp();
  Arrive(1);
  const auto vecTaken = m_pDriver->TakeAll();
  Journal();
  m_pDriver->m_fnOnStop = [&] {
    Context().AnswerSends(kHostNoMemory);
    Events().OnOutcome(vecTaken[0], 0);
  };
  m_pLink->Stop();
  const FakeJournal journal = Journal();
  EXPECT_GE(std::count(journal.begin(), journal.end(), "result 1 0"), 2);
  EXPECT_EQ(journal.back(), "uninitialize");
}

TEST_F(ServerLinkTest, AResultThatNobodyIsThereToTakeIsNotTriedAgain) {
  for (const uint32_t uStatus : {kHostStopping, kHostNoDestination}) {
    StartUp();
    Arrive(1);
    const auto vecTaken = m_pDriver->TakeAll();
    Journal();
    Context().AnswerSends(uStatus);
    Events().OnOutcome(vecTaken[0], 0);
    m_pLink->Stop();
    const FakeJournal journal = Journal();
    EXPECT_EQ(std::count(journal.begin(), journal.end(), "result 1 0"), 1);
  }
}

TEST_F(ServerLinkTest, TellsHowManyRecordsItStillHeldWhenItStopped) {
  StartUp();
  Arrive(1);
  Arrive(2);
  Arrive(3);
  Events().OnOutcome(m_pDriver->Taken()[0], 0);
  EXPECT_EQ(m_pLink->GetCounts().u64HeldAtStop, 0U);
  m_pLink->Stop();
  EXPECT_EQ(m_pLink->GetCounts().u64HeldAtStop, 2U);
  EXPECT_EQ(m_pLink->GetCounts().u64Held, 0U);
}

TEST_F(ServerLinkTest, AnswersWhatTheDriverSettlesWhileItStopsAndNothingLater) {
  StartUp();
  Arrive(1);
  Arrive(2);
  const auto vecTaken = m_pDriver->Taken();
  m_pDriver->m_fnOnStop = [&] {
    Events().OnOutcome(vecTaken[0], 0);
    Events().OnDown("stopping");
    Events().OnUp();
  };
  Journal();
  m_pLink->Stop();
  EXPECT_EQ(Journal(),
            (FakeJournal{"unreceive 20002", "driver stop", "result 1 0", "handler removed", "uninitialize"}));
  Events().OnOutcome(vecTaken[1], 0);
  Events().OnGivenBack({vecTaken[1]});
  Events().OnUp();
  Events().OnDown("late");
  EXPECT_EQ(Journal(), FakeJournal());
  EXPECT_FALSE(m_pLink->GetCounts().bUp);
  EXPECT_EQ(m_pLink->GetCounts().u64Held, 0U);
}

TEST_F(ServerLinkTest, AnswersARecordThatTheDriverThrewAt) {
  StartUp();
  m_pDriver->m_fnOnDeliver = [](const auto&) { throw std::bad_alloc(); };
  Arrive(1);
  EXPECT_EQ(Journal(), (FakeJournal{"reply 0 success", "deliver 1", std::string("result 1 ") + kTimeout}));
}

TEST_F(ServerLinkTest, SurvivesADriverThatSettlesInsideDeliver) {
  StartUp();
  m_pDriver->m_fnOnDeliver = [&](const std::shared_ptr<LinkRecord>& pRecord) {
    if (pRecord->tags.u64DataId == 2) {
      Events().OnDown("inside");
      Events().OnGivenBack({pRecord});
      Events().OnUp();
      m_pDriver->m_fnOnDeliver = nullptr;
    } else {
      Events().OnOutcome(pRecord, 0);
    }
  };
  Arrive(1);
  EXPECT_EQ(Journal(), (FakeJournal{"reply 0 success", "deliver 1", "result 1 0"}));
  Arrive(2);
  EXPECT_EQ(Journal(),
            (FakeJournal{"reply 0 success", "deliver 2", std::string("result 2 ") + kTimeout, "broadcast 1000"}));
}

TEST_F(ServerLinkTest, LetsNoDeliveryOutliveOnDown) {
  StartUp();
  std::promise<void> entered;
  std::promise<void> release;
  std::atomic<bool> bLeft = false;
  m_pDriver->m_fnOnDeliver = [&](const auto&) {
    entered.set_value();
    release.get_future().wait();
    bLeft = true;
  };
  std::thread arriving([&] { Arrive(1); });
  entered.get_future().wait();
  std::thread down([&] {
    Events().OnDown("cable");
    EXPECT_TRUE(bLeft);
  });
  while (m_pLink->GetCounts().bUp) {
    std::this_thread::yield();
  }
  release.set_value();
  down.join();
  arriving.join();
}

TEST_F(ServerLinkTest, AnswersTheConnectionQuery) {
  Start();
  std::string strReply;
  EXPECT_EQ(Context().m_pHandler->HandleRequest(10012, "", strReply), 0U);
  EXPECT_EQ(nlohmann::json::parse(strReply), (nlohmann::json{{"onlineflag", "0"}}));
  Events().OnUp();
  EXPECT_EQ(Context().m_pHandler->HandleRequest(10012, "", strReply), 0U);
  EXPECT_EQ(nlohmann::json::parse(strReply), (nlohmann::json{{"onlineflag", "1"}}));
  EXPECT_NE(Context().m_pHandler->HandleRequest(10013, "", strReply), 0U);
  Events().OnDown("cable");
  EXPECT_EQ(Context().m_pHandler->HandleRequest(10012, "", strReply), 0U);
  EXPECT_EQ(nlohmann::json::parse(strReply), (nlohmann::json{{"onlineflag", "0"}}));
}

TEST_F(ServerLinkTest, AnnouncesToANewPluginOnlyWhileUp) {
  Start();
  m_pLink->AnnounceIfUp();
  EXPECT_EQ(Journal(), FakeJournal());
  Events().OnUp();
  EXPECT_EQ(Journal(), (FakeJournal{"broadcast 1000"}));
  m_pLink->AnnounceIfUp();
  EXPECT_EQ(Journal(), (FakeJournal{"broadcast 1000"}));
  Events().OnDown("cable");
  m_pLink->AnnounceIfUp();
  EXPECT_EQ(Journal(), FakeJournal());
}

TEST_F(ServerLinkTest, LogsEachOutageOnceAndItsEnd) {
  Start();
  Events().OnDown("no cable");
  Events().OnDown("still no cable");
  SpendAnswers();
  Arrive(1);
  Events().OnUp();
  EXPECT_EQ(CountLogLines(3, "server link down"), 1U);
  EXPECT_EQ(CountLogLines(3, "no cable"), 1U);
  EXPECT_EQ(CountLogLines(6, "server link up: 1 records were held"), 1U);
  Events().OnDown("cut");
  EXPECT_EQ(CountLogLines(3, "server link down: cut"), 1U);
}

TEST_F(ServerLinkTest, LogsAnOutageThatComesBackBeforeADeliveryAsOne) {
  StartUp();
  const auto fnLines = [](const char* pszText) { return CountLogLines(3, pszText) + CountLogLines(6, pszText); };
  const size_t uUps = fnLines("server link up");
  for (int i = 0; i < 5; ++i) {
    Events().OnDown("refuses all");
    Events().OnUp();
  }
  // It looked like an end once.
  EXPECT_EQ(fnLines("server link down: refuses all"), 2U);
  EXPECT_EQ(fnLines("server link up"), uUps + 1);
  Arrive(1);
  Events().OnOutcome(m_pDriver->Taken()[0], 0xE0010019);
  EXPECT_EQ(fnLines("server link up"), uUps + 1);
  Arrive(2);
  Events().OnOutcome(m_pDriver->Taken()[1], 0);
  EXPECT_EQ(fnLines("server link up"), uUps + 2);
  Events().OnDown("refuses all");
  EXPECT_EQ(fnLines("server link down: refuses all"), 3U);
  Events().OnUp();
  EXPECT_EQ(fnLines("server link up"), uUps + 3);
  Events().OnDown("another reason");
  EXPECT_EQ(fnLines("server link down: another reason"), 1U);
}

TEST_F(ServerLinkTest, LogsARowOfRefusedResultsOnce) {
  StartUp();
  Context().m_uSendStatus = kHostNoDestination;
  m_pDriver->m_fnOnDeliver = [&](const auto& pRecord) { Events().OnOutcome(pRecord, 0); };
  Arrive(1);
  Arrive(2);
  EXPECT_EQ(CountLogLines(3, "refused a result"), 1U);
  Context().m_uSendStatus = kHostOk;
  Arrive(3);
  Context().m_uSendStatus = kHostNoDestination;
  Arrive(4);
  EXPECT_EQ(CountLogLines(3, "refused a result"), 2U);
}

TEST_F(ServerLinkTest, PassesReopenOn) {
  StartUp();
  m_pLink->Reopen();
  EXPECT_EQ(Journal(), (FakeJournal{"reopen"}));
}

// Records arrive on several threads while the driver goes up and down, settles, doubles and gives back.
TEST_F(ServerLinkTest, AnswersEveryRecordOnceUnderLoad) {
  Start();
  constexpr uint64_t kThreads = 3;
  constexpr uint64_t kEach = 2000;
  std::atomic<bool> bEnd = false;
  std::thread driver([&] {
    unsigned int uRound = 0;
    while (!bEnd) {
      Events().OnUp();
      auto vecRecords = m_pDriver->TakeAll();
      if (++uRound % 3 == 0) {
        Events().OnDown("now and then");
        auto vecRest = m_pDriver->TakeAll();
        vecRecords.insert(vecRecords.end(), vecRest.begin(), vecRest.end());
        Events().OnGivenBack(vecRecords);
        Events().OnOutcome(vecRecords.empty() ? nullptr : vecRecords.front(), 0);
      } else {
        for (const auto& pRecord : vecRecords) {
          Events().OnOutcome(pRecord, 0);
          Events().OnOutcome(pRecord, 0);
        }
      }
    }
    Events().OnUp();
  });
  std::vector<std::thread> vecThreads;
  for (uint64_t t = 0; t < kThreads; ++t) {
    vecThreads.emplace_back([&, t] {
      for (uint64_t i = 1; i <= kEach; ++i) {
        Arrive((t << 32) | i);
      }
    });
  }
  for (auto& thread : vecThreads) {
    thread.join();
  }
  bEnd = true;
  driver.join();
  for (const auto& pRecord : m_pDriver->TakeAll()) {
    Events().OnOutcome(pRecord, 0);
  }
  std::map<std::string, int> mapResults;
  for (const auto& strWhat : Journal()) {
    if (strWhat.starts_with("result ")) {
      ++mapResults[strWhat.substr(7, strWhat.rfind(' ') - 7)];
    }
  }
  EXPECT_EQ(mapResults.size(), kThreads * kEach);
  for (const auto& [strId, iCount] : mapResults) {
    ASSERT_EQ(iCount, 1) << strId;
  }
  const ServerLinkCounts counts = m_pLink->GetCounts();
  EXPECT_EQ(counts.u64Received, kThreads * kEach);
  EXPECT_EQ(counts.u64Delivered + counts.u64Retried, kThreads * kEach);
  EXPECT_EQ(counts.u64Held, 0U);
}

TEST_F(ServerLinkTest, CountsOutcomesByPriorityAndThoseOfThisRunApart) {
  StartUp();
  m_pLink->SetRunStart(0x100);
  Context().Arrive(MakeText(0xff00000001, "of an earlier run", "", "", 2));
  Context().Arrive(MakeText(0x10000000001, "high", "", "", 2));
  Context().Arrive(MakeText(0x10000000002, "public, low", "", "", 10));
  Context().Arrive(MakeText(0x10000000003, "rejected", "", "", 3));
  Context().Arrive(MakeText(0x10000000004, "again", "", "", 1));
  const auto vecTaken = m_pDriver->TakeAll();
  ASSERT_EQ(vecTaken.size(), 5U);
  const std::array<uint32_t, 5> aResults = {0, 0, 0, kHostRecordRefused, kHostSendTimeout};
  for (size_t i = 0; i < aResults.size(); ++i) {
    Events().OnOutcome(vecTaken[i], aResults[i]);
  }
  const ServerLinkCounts counts = m_pLink->GetCounts();
  EXPECT_EQ(counts.aDelivered, (PriorityCounts{1, 0, 2, 0, 0}));
  EXPECT_EQ(counts.aRejected, (PriorityCounts{0, 0, 0, 1, 0}));
  EXPECT_EQ(counts.aSettledOfRun, (PriorityCounts{1, 0, 1, 1, 0}));
}

TEST_F(ServerLinkTest, NoRecordIsOfThisRunBeforeItsStartIsTold) {
  StartUp();
  Arrive(0x10000000001);
  Events().OnOutcome(m_pDriver->TakeAll().at(0), 0);
  EXPECT_EQ(m_pLink->GetCounts().aDelivered, (PriorityCounts{0, 1, 0, 0, 0}));
  EXPECT_EQ(m_pLink->GetCounts().aSettledOfRun, PriorityCounts{});
}

TEST_F(ServerLinkTest, TellsWhyAndSinceWhenItIsDown) {
  StartUp();
  EXPECT_EQ(m_pLink->GetDownReason(), "");
  const auto upSince = m_pLink->GetCounts().stateSince;
  Events().OnDown("the cable");
  EXPECT_EQ(m_pLink->GetDownReason(), "the cable");
  const auto downSince = m_pLink->GetCounts().stateSince;
  EXPECT_GT(downSince, upSince);
  Events().OnDown("still the cable");
  EXPECT_EQ(m_pLink->GetDownReason(), "still the cable");
  EXPECT_EQ(m_pLink->GetCounts().stateSince, downSince);
  Events().OnUp();
  EXPECT_EQ(m_pLink->GetDownReason(), "");
  EXPECT_GT(m_pLink->GetCounts().stateSince, downSince);
}

}  // namespace
