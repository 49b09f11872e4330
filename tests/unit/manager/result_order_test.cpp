// Results that come early, late, doubled, or for a record that is somewhere else.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "message/receive.h"
#include "message/send_completion.h"
#include "tests/support/manager_fixture.h"

namespace {

constexpr uint32_t kTimeout = 0xE0010019;

class ResultOrderTest : public ManagerTest {
 protected:
  void DeliverResult(uint32_t dwResult, unsigned long long u64DataId) {
    unsigned char abPayload[32] = {};
    memcpy(abPayload + 4, &dwResult, sizeof(dwResult));
    memcpy(abPayload + 8, &u64DataId, sizeof(u64DataId));
    CLogCacheReceive::m_gReceive.ReceiveCallback(kSenderGuid, 20003, abPayload, sizeof(abPayload), nullptr,
                                                 static_cast<IComponentContext*>(&m_context));
  }
};

TEST_F(ResultOrderTest, ADeliveryBeforeTheSendReturnsStillGivesACorrectLine) {
  m_context.SetSendHandler([this](const SentMessage& message, uint64_t* pu64Act) {
    *pu64Act = 0x5;
    DeliverResult(0, message.u64UserValue);
    return 0u;
  });
  SendRecord();
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 2,
      "qmlogcache step2 OK RunExecData AsynSendEx lRefCount[1] ui64ACT[5] u64DataId[6553f10000000001] iPriv[1] "
      "iMsgType[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]"));
  EXPECT_EQ(0, m_peer.SendRefCount());
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(ResultOrderTest, ARejectionBeforeTheSendReturnsDropsTheRecord) {
  m_context.SetSendHandler([](const SentMessage& message, uint64_t*) {
    message.pComplete->SendCallback(0x77, 20002, nullptr, 0, 1, reinterpret_cast<void*>(message.u64UserValue));
    return 0u;
  });
  SendRecord();
  EXPECT_EQ(0, m_peer.SendRefCount());
  EXPECT_EQ(0u, m_dataPeer.MapSize());
  EXPECT_EQ(1u, m_peer.Statistics().CountRecvFail);
}

TEST_F(ResultOrderTest, ARetryableFailureBeforeTheSendReturnsQueuesTheRecordAgain) {
  m_context.SetSendHandler([](const SentMessage& message, uint64_t*) {
    message.pComplete->SendCallback(static_cast<int>(kTimeout), 20002, nullptr, 0, 1,
                                    reinterpret_cast<void*>(message.u64UserValue));
    return 0u;
  });
  const unsigned long long u64DataId = SendRecord();
  EXPECT_EQ(0, m_peer.SendRefCount());
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
  const ExecDataHold hold = m_data.GetExecData();
  ASSERT_NE(nullptr, hold);
  EXPECT_EQ(u64DataId, hold->u64DataId);
  EXPECT_EQ(1u, hold->ReSendCount);
}

TEST_F(ResultOrderTest, ADeliveryForARecordThatIsStillQueuedLeavesNothingToSend) {
  const unsigned long long u64DataId = AddRecord();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0, 0));
  EXPECT_EQ(nullptr, m_data.GetExecData());
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(ResultOrderTest, AFailureForARecordThatIsStillQueuedLeavesOneEntry) {
  const unsigned long long u64DataId = AddRecord();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
  EXPECT_EQ(2u, m_dataPeer.Find(u64DataId)->ReSendCount);
  EXPECT_NE(nullptr, m_data.GetExecData());
  EXPECT_EQ(nullptr, m_data.GetExecData());
}

TEST_F(ResultOrderTest, ADeliveryWhileTheRecordIsBeingFiledLeavesNothingToSend) {
  bool bDone = false;
  CPlatformFaults::SetInsertHook([&] {
    if (!bDone) {
      bDone = true;
      EXPECT_EQ(0, m_manager.ResultExecData(kFirstDataId, 0, 0));
    }
  });
  EXPECT_EQ(0, m_manager.AddExecData(10101, 1, 1, 1, kSenderText, "prod", "combo", "data"));
  EXPECT_TRUE(bDone);
  EXPECT_EQ(0u, m_dataPeer.MapSize());
  EXPECT_EQ(nullptr, m_data.GetExecData());
}

TEST_F(ResultOrderTest, AFailureWhileTheRecordIsBeingFiledLeavesOneEntry) {
  bool bDone = false;
  CPlatformFaults::SetInsertHook([&] {
    if (!bDone) {
      bDone = true;
      EXPECT_EQ(0, m_manager.ResultExecData(kFirstDataId, kTimeout, 0));
    }
  });
  EXPECT_EQ(0, m_manager.AddExecData(10101, 1, 1, 1, kSenderText, "prod", "combo", "data"));
  EXPECT_TRUE(bDone);
  EXPECT_EQ(1u, m_dataPeer.MapSize());
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
  EXPECT_NE(nullptr, m_data.GetExecData());
  EXPECT_EQ(nullptr, m_data.GetExecData());
}

TEST_F(ResultOrderTest, AFailureAfterTheSweepLeavesOneEntry) {
  const unsigned long long u64DataId = SendRecord();
  CFakeClock::Advance(14400);
  m_data.RepeatExecDataMap();
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
  EXPECT_EQ(2u, m_dataPeer.Find(u64DataId)->ReSendCount);
  EXPECT_NE(nullptr, m_data.GetExecData());
  EXPECT_EQ(nullptr, m_data.GetExecData());
}

TEST_F(ResultOrderTest, ADeliveryAfterTheSweepLeavesNothingToSend) {
  const unsigned long long u64DataId = SendRecord();
  CFakeClock::Advance(14400);
  m_data.RepeatExecDataMap();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0, 0));
  EXPECT_EQ(nullptr, m_data.GetExecData());
}

TEST_F(ResultOrderTest, ADoubledFailureQueuesTheRecordOnce) {
  const unsigned long long u64DataId = SendRecord();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
  EXPECT_EQ(1u, m_peer.Statistics().CountTimeout);
  EXPECT_EQ(1u, m_peer.Statistics().CountReTimeout);
}

TEST_F(ResultOrderTest, AFailureAfterADeliveryFindsNothing) {
  const unsigned long long u64DataId = SendRecord();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0, 0));
  EXPECT_EQ(static_cast<int>(0xA0010042), m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ(nullptr, m_data.GetExecData());
  EXPECT_EQ(0u, m_peer.Statistics().CountTimeout);
}

TEST_F(ResultOrderTest, ADeliveryForARecordThatWasTakenButNotSentIsNotFreedUnderTheTaker) {
  const unsigned long long u64DataId = AddRecord();
  const ExecDataHold hold = m_data.GetExecData();
  ASSERT_NE(nullptr, hold);
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0, 0));
  // The taker goes on with the record that it holds.
  EXPECT_EQ(u64DataId, hold->u64DataId);
  EXPECT_EQ(1, m_manager.RunExecData(hold.get()));
  EXPECT_EQ(1u, m_context.Sends().size());
}

TEST_F(ResultOrderTest, ResultsInAnyOrderSettleTheirOwnRecords) {
  const unsigned long long u64First = SendRecord();
  const unsigned long long u64Second = SendRecord();
  const unsigned long long u64Third = SendRecord();
  DeliverResult(0, u64Third);
  DeliverResult(0x9, u64First);
  DeliverResult(kTimeout, u64Second);
  EXPECT_FALSE(m_data.IsDataIdExist(u64First));
  EXPECT_TRUE(m_data.IsDataIdExist(u64Second));
  EXPECT_FALSE(m_data.IsDataIdExist(u64Third));
  EXPECT_EQ(0, m_peer.SendRefCount());
}

TEST_F(ResultOrderTest, OfTwoResultsAtOnceTheSecondFindsNoRecord) {
  const unsigned long long u64DataId = SendRecord();
  // The first result is held up between its lookup and its action, until the second one is on its way.
  std::atomic<bool> bSecondOnItsWay{false};
  std::thread second;
  CLogCapture::SetHook([&](const LogLine& line) {
    if (line.strChannel == kErrorChannel && !second.joinable()) {
      second = std::thread([&] {
        bSecondOnItsWay = true;
        DeliverResult(0x77, u64DataId);
      });
      while (!bSecondOnItsWay) {
        std::this_thread::yield();
      }
    }
  });
  DeliverResult(0x77, u64DataId);
  second.join();
  EXPECT_EQ(1u, m_peer.Statistics().CountRecvFail);
  const std::vector<LogLine> vecLines = CLogCapture::Lines();
  EXPECT_EQ(1, std::count_if(vecLines.begin(), vecLines.end(),
                             [](const LogLine& line) { return line.strChannel == kErrorChannel; }));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 3,
                         "*qmlogcache step3 Error ResultExecData GetExecDataFromMap iRet[a0010042] SubSendRef "
                         "lRefCount[0] ui64ACT[ffffffffffffffff] u64DataId[" +
                             std::to_string(u64DataId) + "] dwResult[77]\n"));
}

}  // namespace
