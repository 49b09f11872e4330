// Reception of priority messages, results and broadcasts, and the answer to the sender.
#include "message/receive.h"

#include <sys/mman.h>

#include <cstring>
#include <limits>
#include <string>

#include "tests/support/allocation_faults.h"
#include "tests/support/manager_fixture.h"

namespace {

class ReceiveTest : public ManagerTest {
 protected:
  void Deliver(long i64MsgType, const std::string& strPayload) {
    CLogCacheReceive::m_gReceive.ReceiveCallback(
        kSenderGuid, i64MsgType, reinterpret_cast<const unsigned char*>(strPayload.data()),
        static_cast<unsigned int>(strPayload.size()), m_pReplyHandle, static_cast<IComponentContext*>(&m_context));
  }
  static std::string ResultPayload(uint32_t dwResult, unsigned long long u64DataId, size_t uSize = 32) {
    std::string strPayload(40, '\x5a');
    memcpy(&strPayload[4], &dwResult, sizeof(dwResult));
    memcpy(&strPayload[8], &u64DataId, sizeof(u64DataId));
    return strPayload.substr(0, uSize);
  }
  ::testing::AssertionResult AnsweredOnce(uint32_t uRet, int64_t i64MsgType, const std::string& strText) {
    const std::vector<GivenReply> vecReplies = m_context.Replies();
    if (vecReplies.size() != 1) {
      return ::testing::AssertionFailure() << vecReplies.size() << " answers";
    }
    const GivenReply& reply = vecReplies[0];
    if (static_cast<uint32_t>(reply.iRet) != uRet || reply.i64MsgType != i64MsgType || reply.strText != strText ||
        reply.pReplyHandle != m_pReplyHandle) {
      return ::testing::AssertionFailure() << std::hex << reply.iRet << " " << std::dec << reply.i64MsgType << " "
                                           << reply.strText << " " << reply.pReplyHandle;
    }
    return ::testing::AssertionSuccess();
  }

  int m_iHandle = 0;
  void* m_pReplyHandle = &m_iHandle;
};

TEST_F(ReceiveTest, DecodesEachPriorityType) {
  struct Row {
    long long i64First;
    int iPriv;
    int iMsgType;
  };
  const Row aRows[] = {{10100, 0, 1}, {10110, 10, 1}, {10200, 0, 2}, {10210, 10, 2}, {10150, 0, 3}, {10160, 10, 3}};
  for (const Row& row : aRows) {
    for (int i = 0; i < 4; ++i) {
      int iPriv = -1;
      int iMsgType = -1;
      EXPECT_TRUE(CLogCacheReceive::GetPrivAndMsgType(row.i64First + i, iPriv, iMsgType)) << row.i64First + i;
      EXPECT_EQ(row.iPriv + i, iPriv) << row.i64First + i;
      EXPECT_EQ(row.iMsgType, iMsgType) << row.i64First + i;
    }
    int iPriv = 0;
    int iMsgType = 0;
    EXPECT_FALSE(CLogCacheReceive::GetPrivAndMsgType(row.i64First - 1, iPriv, iMsgType)) << row.i64First - 1;
    EXPECT_FALSE(CLogCacheReceive::GetPrivAndMsgType(row.i64First + 4, iPriv, iMsgType)) << row.i64First + 4;
  }
  int iPriv = 0;
  int iMsgType = 0;
  EXPECT_FALSE(CLogCacheReceive::GetPrivAndMsgType(0, iPriv, iMsgType));
  EXPECT_FALSE(CLogCacheReceive::GetPrivAndMsgType(-10100, iPriv, iMsgType));
  EXPECT_FALSE(CLogCacheReceive::GetPrivAndMsgType(std::numeric_limits<long long>::min(), iPriv, iMsgType));
  EXPECT_FALSE(CLogCacheReceive::GetPrivAndMsgType(std::numeric_limits<long long>::max(), iPriv, iMsgType));
  EXPECT_FALSE(CLogCacheReceive::GetPrivAndMsgType(10100 + (1LL << 32), iPriv, iMsgType));
}

TEST_F(ReceiveTest, FilesTheWholePayloadOfAPriorityMessage) {
  m_dataPeer.SetDataFlowFlag(1);
  Deliver(10112, "the data");
  EXPECT_TRUE(AnsweredOnce(0, 10112, "success"));
  const _LogExecData* pRecord = m_dataPeer.Find(kFirstDataId);
  ASSERT_NE(nullptr, pRecord);
  EXPECT_EQ(12, pRecord->iPriv);
  EXPECT_EQ(1, pRecord->iMsgType);
  EXPECT_EQ(1, pRecord->iDataSaveStatus);
  EXPECT_STREQ(kSenderText, pRecord->strPluginId.c_str());
  EXPECT_TRUE(pRecord->strProduct.IsEmpty());
  EXPECT_TRUE(pRecord->strCombo.IsEmpty());
  EXPECT_STREQ(
      "<version=1><dataid=6553f10000000001><priv=12><msgtype=1><guid=01234567-89AB-CDEF-0123-456789ABCDEF>"
      "<product=><combo=><end=1><msg=the data>",
      pRecord->strData.c_str());
}

TEST_F(ReceiveTest, TakesCloudTagTypesThatAreDeliveredAllTheSame) {
  Deliver(10163, "tag");
  EXPECT_TRUE(AnsweredOnce(0, 10163, "success"));
  ASSERT_NE(nullptr, m_dataPeer.Find(kFirstDataId));
  EXPECT_EQ(3, m_dataPeer.Find(kFirstDataId)->iMsgType);
  EXPECT_EQ(13, m_dataPeer.Find(kFirstDataId)->iPriv);
  EXPECT_EQ(1u, m_peer.Statistics().CountCloudTag);
}

TEST_F(ReceiveTest, RejectsATypeJustBeyondTheEdrPrivateRange) {
  Deliver(10104, "data");
  EXPECT_TRUE(AnsweredOnce(0xA0010005, 10104, "fail"));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache step1 Error ReceiveCallback GetPrivAndMsgType i64MsgType[2778] "
                              "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[4]"}}));
  EXPECT_EQ(0u, m_dataPeer.MapSize());
  EXPECT_EQ(0u, m_peer.Statistics().CountAll);
}

TEST_F(ReceiveTest, RejectsANullPayload) {
  CLogCacheReceive::m_gReceive.ReceiveCallback(kSenderGuid, 10100, nullptr, 5, m_pReplyHandle,
                                               static_cast<IComponentContext*>(&m_context));
  EXPECT_TRUE(AnsweredOnce(0xA0010002, 10100, "fail"));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache CLogCacheReceive::ReceiveCallback Error pData is NULL i64MsgType[2774] "
                              "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] pData[(nil)] uiDataLength[5]"}}));
}

TEST_F(ReceiveTest, RejectsAnEmptyPayload) {
  CLogCacheReceive::m_gReceive.ReceiveCallback(kSenderGuid, 10102, reinterpret_cast<const unsigned char*>(0x1000), 0,
                                               m_pReplyHandle, static_cast<IComponentContext*>(&m_context));
  EXPECT_TRUE(AnsweredOnce(0xA0010002, 10102, "fail"));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache CLogCacheReceive::ReceiveCallback Error pData is NULL i64MsgType[2776] "
                              "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] pData[0x1000] uiDataLength[0]"}}));
}

TEST_F(ReceiveTest, AnEmptyConnectBroadcastIsRejectedAndDoesNotConnect) {
  CLogCacheReceive::m_gReceive.ReceiveCallback(kSenderGuid, 1000, nullptr, 0, nullptr,
                                               static_cast<IComponentContext*>(&m_context));
  EXPECT_FALSE(m_peer.Connected());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache CLogCacheReceive::ReceiveCallback Error pData is NULL i64MsgType[3e8] "
                              "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] pData[(nil)] uiDataLength[0]"}}));
}

TEST_F(ReceiveTest, AConnectBroadcastConnects) {
  Deliver(1000, "{}");
  EXPECT_TRUE(m_peer.Connected());
  EXPECT_TRUE(AnsweredOnce(0, 1000, "success"));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 2,
                              "qmlogcache CLogCacheReceive::ReceiveCallback AGENT_MSG_BROADCAST_CONNECT "
                              "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[2]"}}));
}

TEST_F(ReceiveTest, RejectsAResultOfThirtyOneBytes) {
  const unsigned long long u64DataId = SendRecord();
  CLogCapture::Reset();
  Deliver(20003, ResultPayload(0, u64DataId, 31));
  EXPECT_TRUE(AnsweredOnce(0xA0010004, 20003, "fail"));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache CLogCacheReceive::ReceiveCallback Error recv size i64MsgType[4e23] "
                              "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[31] recvSize[32]"}}));
  EXPECT_EQ(1, m_peer.SendRefCount());
  EXPECT_TRUE(m_data.IsDataIdExist(u64DataId));
}

TEST_F(ReceiveTest, RejectsAResultOfThirtyThreeBytes) {
  Deliver(20003, ResultPayload(0, kFirstDataId, 33));
  EXPECT_TRUE(AnsweredOnce(0xA0010004, 20003, "fail"));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache CLogCacheReceive::ReceiveCallback Error recv size i64MsgType[4e23] "
                              "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[33] recvSize[32]"}}));
}

TEST_F(ReceiveTest, SettlesARecordByItsResultMessage) {
  const unsigned long long u64DataId = SendRecord();
  Deliver(20003, ResultPayload(0, u64DataId));
  EXPECT_TRUE(AnsweredOnce(0, 20003, "success"));
  EXPECT_FALSE(m_data.IsDataIdExist(u64DataId));
  EXPECT_EQ(0, m_peer.SendRefCount());
  EXPECT_EQ(1u, m_peer.Statistics().CountSuccess);
}

TEST_F(ReceiveTest, AnswersAResultForAnUnknownRecordWithTheLookupsCode) {
  Deliver(20003, ResultPayload(0, 0x99));
  EXPECT_TRUE(AnsweredOnce(0xA0010042, 20003, "fail"));
}

TEST_F(ReceiveTest, AMessageWithoutAReplyHandleIsNotAnswered) {
  m_pReplyHandle = nullptr;
  Deliver(10100, "data");
  Deliver(10104, "data");
  EXPECT_TRUE(m_context.Replies().empty());
  EXPECT_EQ(1u, m_dataPeer.MapSize());
}

TEST_F(ReceiveTest, AMessageWithoutAContextIsNotAnswered) {
  const unsigned char abData[] = {'d'};
  CLogCacheReceive::m_gReceive.ReceiveCallback(kSenderGuid, 10100, abData, 1, m_pReplyHandle, nullptr);
  EXPECT_TRUE(m_context.Replies().empty());
  EXPECT_EQ(1u, m_dataPeer.MapSize());
}

TEST_F(ReceiveTest, AnswersARefusedRecordWithTheStoresCode) {
  m_dataPeer.SetDataCountLimit(0);
  Deliver(10100, "one over the limit is taken");
  Deliver(10100, "refused");
  const std::vector<GivenReply> vecReplies = m_context.Replies();
  ASSERT_EQ(2u, vecReplies.size());
  EXPECT_EQ("success", vecReplies[0].strText);
  EXPECT_EQ("fail", vecReplies[1].strText);
  EXPECT_EQ(0xA0010014u, static_cast<uint32_t>(vecReplies[1].iRet));
}

TEST_F(ReceiveTest, TakesDataWithZeroBytesAndEndsTheTaggedTextAtTheFirst) {
  // The log line prints the data as text; its length shows in the record's own text only up to the zero byte.
  Deliver(10101, std::string("ab\0cd", 5));
  EXPECT_TRUE(AnsweredOnce(0, 10101, "success"));
  const _LogExecData* pRecord = m_dataPeer.Find(kFirstDataId);
  ASSERT_NE(nullptr, pRecord);
  const std::string strText(pRecord->strData.View());
  EXPECT_EQ("<end=1><msg=ab>", strText.substr(strText.find("<end=1>")));
}

TEST_F(ReceiveTest, EachRecordCarriesItsOwnSenderHoweverSendersTakeTurns) {
  const GUID other = {0xFEDCBA98, 0x7654, 0x3210, {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};
  const std::vector<std::pair<GUID, std::string>> vecSenders = {{GUID{}, "00000000-0000-0000-0000-000000000000"},
                                                                {kSenderGuid, kSenderText},
                                                                {kSenderGuid, kSenderText},
                                                                {other, "FEDCBA98-7654-3210-FEDC-BA9876543210"},
                                                                {kSenderGuid, kSenderText},
                                                                {GUID{}, "00000000-0000-0000-0000-000000000000"}};
  unsigned long long u64DataId = kFirstDataId;
  for (const auto& [sender, strText] : vecSenders) {
    CLogCacheReceive::m_gReceive.ReceiveCallback(sender, 10101, reinterpret_cast<const unsigned char*>("data"), 4,
                                                 m_pReplyHandle, static_cast<IComponentContext*>(&m_context));
    const _LogExecData* pRecord = m_dataPeer.Find(u64DataId++);
    ASSERT_NE(nullptr, pRecord);
    EXPECT_EQ(strText, pRecord->strPluginId.View());
    EXPECT_NE(std::string_view::npos, pRecord->strData.View().find("><guid=" + strText + "><product="));
  }
}

// Without memory for its payload.
class ReceiveWithoutMemoryTest : public ReceiveTest {
 protected:
  ReceiveWithoutMemoryTest() {
    constexpr size_t kPayload = 96U << 20;
    constexpr size_t kHeadroom = 64U << 20;
    void* pPayload = mmap(nullptr, kPayload, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, pPayload);
    std::memset(pPayload, 'x', kPayload);
    {
      const CAddressSpaceLimit limit(kHeadroom);
      CLogCacheReceive::m_gReceive.ReceiveCallback(kSenderGuid, 10101, static_cast<const unsigned char*>(pPayload),
                                                   kPayload, m_pReplyHandle,
                                                   static_cast<IComponentContext*>(&m_context));
    }
    munmap(pPayload, kPayload);
  }
};

TEST_F(ReceiveWithoutMemoryTest, AnswersFailAndTheNextMessageIsTaken) {
  const std::vector<GivenReply> vecReplies = m_context.Replies();
  ASSERT_EQ(1u, vecReplies.size());
  EXPECT_EQ("fail", vecReplies[0].strText);
  EXPECT_NE(0, vecReplies[0].iRet);
  EXPECT_EQ(0u, m_dataPeer.MapSize());

  Deliver(10101, "and life goes on");
  EXPECT_EQ("success", m_context.Replies().back().strText);
}

TEST_F(ReceiveWithoutMemoryTest, LogsTheRejectedMessage) {
  ASSERT_EQ(1u, CLogCapture::Lines().size());
  EXPECT_EQ(kMainChannel, CLogCapture::Lines()[0].strChannel);
  EXPECT_EQ(3, CLogCapture::Lines()[0].iLevel);
  const std::string strText = CLogCapture::Lines()[0].strText;
  constexpr char kBegin[] =
      "*qmlogcache step1 Error AddDataAction iRet[e0010003] bForceSave[0] i64MsgType[2775] u64DataId[";
  EXPECT_TRUE(strText.starts_with(kBegin)) << strText.substr(0, 200);
  EXPECT_NE(std::string::npos, strText.find(std::string("] iPriv[1] iMsgType[1] iDataSaveStatus[1] strPluginId[") +
                                            kSenderText + "] strProduct[] strCombo[] strData[xxx"))
      << strText.substr(0, 300);
  EXPECT_EQ(1u, m_peer.Statistics().CountAll);
  EXPECT_EQ(1u, m_peer.Statistics().CountAddFail);
}

}  // namespace
