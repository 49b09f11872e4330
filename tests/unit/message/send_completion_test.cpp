#include "message/send_completion.h"

#include "tests/support/manager_fixture.h"

namespace {

void* UserValue(unsigned long long u64DataId) {
  return reinterpret_cast<void*>(u64DataId);
}

void Complete(int iRetReply, long i64MsgType, unsigned long ui64ACT, void* pContext) {
  CLogCacheSend::m_LogCacheSend.SendCallback(iRetReply, i64MsgType, nullptr, 0, ui64ACT, pContext);
}

using SendCompletionTest = ManagerTest;

TEST_F(SendCompletionTest, DropsAForeignMessageType) {
  const unsigned long long u64DataId = SendRecord();
  CLogCapture::Reset();
  Complete(0x1f, 20003, 0xabc, UserValue(u64DataId));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache SendCallback i64MsgType NOT AGENT_MSG_ASYNC_LOGCACHE i64MsgType[4e23] "
                              "iRetReply[1f] ui64ACT[abc]"}}));
  EXPECT_EQ(1, m_peer.SendRefCount());
  EXPECT_TRUE(m_data.IsDataIdExist(u64DataId));
}

TEST_F(SendCompletionTest, DropsAFailureForDataIdZero) {
  m_peer.SetSendRefCount(1);
  Complete(static_cast<int>(0xE0010019), 20002, 0xabc, nullptr);
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 3,
                      "*qmlogcache SendCallback pContext is NULL i64MsgType[4e22] iRetReply[e0010019] ui64ACT[abc]"}}));
  EXPECT_EQ(1, m_peer.SendRefCount());
}

TEST_F(SendCompletionTest, ASuccessChangesNoCounterAndNotTheInFlightCount) {
  const unsigned long long u64DataId = SendRecord();
  CLogCapture::Reset();
  Complete(0, 20002, 0xabc, UserValue(u64DataId));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 1,
        "qmlogcache step2 OK SendCallback i64MsgType[4e22] iRetReply[0] ui64ACT[abc] u64DataId[6553f10000000001]"}}));
  EXPECT_EQ(1, m_peer.SendRefCount());
  EXPECT_TRUE(m_data.IsDataIdExist(u64DataId));
  EXPECT_EQ(0u, m_peer.Statistics().CountSuccess);
  EXPECT_EQ(0u, m_peer.Statistics().CountRecvFail);
  EXPECT_EQ(0, m_peer.SendSingle());
}

TEST_F(SendCompletionTest, ARetryableFailureQueuesTheRecordAgain) {
  const unsigned long long u64DataId = SendRecord();
  Complete(static_cast<int>(0xE0010019), 20002, 0xabc, UserValue(u64DataId));
  EXPECT_EQ(0, m_peer.SendRefCount());
  EXPECT_EQ(1u, m_peer.Statistics().CountTimeout);
  EXPECT_TRUE(m_data.IsDataIdExist(u64DataId));
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
}

TEST_F(SendCompletionTest, AnyOtherFailureIsPassedOnUnchangedWithItsToken) {
  const unsigned long long u64DataId = SendRecord();
  CLogCapture::Reset();
  Complete(0x77, 20002, 0xabc, UserValue(u64DataId));
  EXPECT_FALSE(m_data.IsDataIdExist(u64DataId));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 3,
                         "*qmlogcache step3 Error ResultExecData DeleteDataAction OK SubSendRef lRefCount[0] "
                         "result[77] StartTime[6553f100] ReSendCount[0] ui64ACT[abc] u64DataId[6553f10000000001] "
                         "iPriv[1] iMsgType[1] iDataSaveStatus[0] "
                         "strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]\n"));
}

TEST_F(SendCompletionTest, AFailureAfterCloseIsLoggedAndDropped) {
  CLogCacheMgr::Close();
  CLogCapture::Reset();
  Complete(static_cast<int>(0xB0010025), 20002, 0xabc, UserValue(kFirstDataId));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3,
        "*qmlogcache SendCallback pLogCacheMgr is NULL i64MsgType[4e22] iRetReply[b0010025] ui64ACT[abc]"}}));
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

}  // namespace
