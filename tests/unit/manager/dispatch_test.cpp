#include <cstdio>
#include <string>

#include "message/send_completion.h"
#include "tests/support/manager_fixture.h"

namespace {

class DispatchTest : public ManagerTest {
 protected:
  // Files and takes a record.
  ExecDataHold Take() {
    AddRecord();
    ExecDataHold hold = m_data.GetExecData();
    EXPECT_NE(nullptr, hold);
    CLogCapture::Reset();
    return hold;
  }
};

TEST_F(DispatchTest, SendsTheTaggedTextWithTheFixedArguments) {
  const ExecDataHold hold = Take();
  const std::string strData(hold->strData.View());
  EXPECT_EQ(1, m_manager.RunExecData(hold.get()));
  const std::vector<SentMessage> vecSends = m_context.Sends();
  ASSERT_EQ(1u, vecSends.size());
  EXPECT_EQ("C0E4F1B2-3A59-4D86-8B7E-91F2D6A3C4E7", vecSends[0].strDest);
  EXPECT_EQ(20002u, vecSends[0].uMsgType);
  EXPECT_EQ(strData, vecSends[0].strData);
  EXPECT_EQ("<version=1>", vecSends[0].strData.substr(0, 11));
  EXPECT_EQ(&CLogCacheSend::m_LogCacheSend, vecSends[0].pComplete);
  EXPECT_EQ(kFirstDataId, vecSends[0].u64UserValue);
  EXPECT_EQ(0u, vecSends[0].u64ActBefore);
  EXPECT_EQ(120000u, vecSends[0].uTimeoutMs);
}

TEST_F(DispatchTest, AnAcceptedSendIsLoggedAndInFlight) {
  m_context.SetSendHandler([](const SentMessage&, uint64_t* pu64Act) {
    *pu64Act = 0xABCDEF;
    return 0u;
  });
  m_peer.SetSendRefCount(6);
  const ExecDataHold hold = Take();
  EXPECT_EQ(1, m_manager.RunExecData(hold.get()));
  EXPECT_EQ(7, m_peer.SendRefCount());
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 2,
        "qmlogcache step2 OK RunExecData AsynSendEx lRefCount[7] ui64ACT[abcdef] u64DataId[6553f10000000001] iPriv[1] "
        "iMsgType[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]"}}));
  EXPECT_TRUE(m_data.IsDataIdExist(kFirstDataId));
}

TEST_F(DispatchTest, ARefusedSendDropsTheRecordAndKeepsItsDataOnTheErrorChannel) {
  m_context.SetSendHandler([](const SentMessage&, uint64_t*) { return 0xB0010099u; });
  m_peer.SetSendRefCount(3);
  const ExecDataHold hold = Take();
  EXPECT_EQ(0, m_manager.RunExecData(hold.get()));
  EXPECT_EQ(3, m_peer.SendRefCount());
  EXPECT_EQ(1u, m_peer.Statistics().CountSendFail);
  EXPECT_FALSE(m_data.IsDataIdExist(kFirstDataId));
  EXPECT_TRUE(LoggedExactly(
      {{kErrorChannel, 3,
        "*qmlogcache step2 Error RunExecData lRefCount[3] iRet[b0010099] i64MsgType[4e22] "
        "u64DataId[6553f10000000001] iPriv[1] iMsgType[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] "
        "strProduct[prod] strCombo[combo] strData[<version=1><dataid=6553f10000000001><priv=1><msgtype=1>"
        "<guid=01234567-89AB-CDEF-0123-456789ABCDEF><product=prod><combo=combo><end=1><msg=data>]"},
       {kMainChannel, 3,
        "*qmlogcache step2 Error RunExecData AsynSendEx iRet[0] i64MsgType[4e22] u64DataId[6553f10000000001] "
        "iPriv[1] iMsgType[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] "
        "strCombo[combo]"}}));
}

TEST_F(DispatchTest, ARefusedSendOfARecordThatIsGoneTellsTheDeletionsResult) {
  m_context.SetSendHandler([this](const SentMessage& message, uint64_t*) {
    EXPECT_EQ(0, m_data.DeleteDataAction(message.u64UserValue));
    return 0xB0010099u;
  });
  const ExecDataHold hold = Take();
  EXPECT_EQ(0, m_manager.RunExecData(hold.get()));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache step2 Error RunExecData AsynSendEx DeleteDataAction Error iRet[a0010042] i64MsgType[4e22] "
      "u64DataId[6553f10000000001] iPriv[1] iMsgType[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] "
      "strProduct[prod] strCombo[combo]"));
  // The data is still readable for the error channel.
  EXPECT_TRUE(
      LoggedOnce(kErrorChannel, 3,
                 "*qmlogcache step2 Error RunExecData lRefCount[0] iRet[b0010099] i64MsgType[4e22] "
                 "u64DataId[6553f10000000001] iPriv[1] iMsgType[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] "
                 "strProduct[prod] strCombo[combo] strData[<version=1><dataid=6553f10000000001><priv=1><msgtype=1>"
                 "<guid=01234567-89AB-CDEF-0123-456789ABCDEF><product=prod><combo=combo><end=1><msg=data>]"));
}

TEST_F(DispatchTest, ANullRecordIsLoggedAndChangesNothing) {
  m_manager.SetCtx(reinterpret_cast<void*>(0x1234));
  CLogCapture::Reset();
  EXPECT_EQ(0, m_manager.RunExecData(nullptr));
  m_manager.SetCtx(nullptr);
  EXPECT_TRUE(LoggedOnce(kMainChannel, 3, "*qmlogcache step2 Error RunExecData pExecData[(nil)] m_pCompCtx[0x1234]"));
  EXPECT_EQ(0, m_peer.SendRefCount());
  EXPECT_EQ(0u, m_peer.Statistics().CountSendFail);
}

TEST_F(DispatchTest, WithoutAContextTheRecordStays) {
  const ExecDataHold hold = Take();
  m_manager.SetCtx(nullptr);
  CLogCapture::Reset();
  EXPECT_EQ(0, m_manager.RunExecData(hold.get()));
  char szText[128];
  snprintf(szText, sizeof(szText), "*qmlogcache step2 Error RunExecData pExecData[%p] m_pCompCtx[(nil)]",
           static_cast<void*>(hold.get()));
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3, szText}}));
  EXPECT_EQ(0, m_peer.SendRefCount());
  EXPECT_TRUE(m_data.IsDataIdExist(kFirstDataId));
}

}  // namespace
