// The connection query.
#include <cstdio>
#include <string>

#include "tests/support/manager_fixture.h"

namespace {

class ConnectionTest : public ManagerTest {
 protected:
  static std::string PointerText(const void* pPointer) {
    char szText[32];
    snprintf(szText, sizeof(szText), "%p", pPointer);
    return szText;
  }
};

TEST_F(ConnectionTest, AsksTheServerLinkWithTheFixedArguments) {
  m_context.SetConnectAnswer(0, 0, "{\"onlineflag\":\"1\"}");
  EXPECT_TRUE(m_manager.GetServerConnectStat());
  const std::vector<ConnectQuery> vecQueries = m_context.Queries();
  ASSERT_EQ(1u, vecQueries.size());
  EXPECT_EQ("C0E4F1B2-3A59-4D86-8B7E-91F2D6A3C4E7", vecQueries[0].strDest);
  EXPECT_EQ(10012u, vecQueries[0].uCode);
  EXPECT_EQ("", vecQueries[0].strRequest);
  EXPECT_EQ(0u, vecQueries[0].uRequestLength);
  EXPECT_EQ(0xE0010000u, vecQueries[0].uStatusBefore);
  EXPECT_EQ(60000u, vecQueries[0].uTimeoutMs);
  EXPECT_EQ((std::vector<std::string>{"AgentGetConnect", "FreeReply"}), m_context.Calls());
}

TEST_F(ConnectionTest, TheTextOneIsOnline) {
  m_context.SetConnectAnswer(0, 0, "{\"onlineflag\":\"1\",\"a\":2}");
  EXPECT_TRUE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 2,
        "qmlogcache GetServerConnectStat bStatus[1] strFlag[1] strData[{\"onlineflag\":\"1\",\"a\":2}]"}}));
}

TEST_F(ConnectionTest, TheNumberOneIsOnline) {
  m_context.SetConnectAnswer(0, 0, "{\"onlineflag\":1}");
  EXPECT_TRUE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 2, "qmlogcache GetServerConnectStat bStatus[1] strFlag[1] strData[{\"onlineflag\":1}]"}}));
}

TEST_F(ConnectionTest, TrueIsNotOnline) {
  m_context.SetConnectAnswer(0, 0, "{\"onlineflag\":true}");
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 2, "qmlogcache GetServerConnectStat bStatus[0] strFlag[true] strData[{\"onlineflag\":true}]"}}));
}

TEST_F(ConnectionTest, TheTextTrueIsNotOnline) {
  m_context.SetConnectAnswer(0, 0, "{\"onlineflag\":\"true\"}");
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 2,
                      "qmlogcache GetServerConnectStat bStatus[0] strFlag[true] strData[{\"onlineflag\":\"true\"}]"}}));
}

TEST_F(ConnectionTest, OnlyTheTopLevelKeyCounts) {
  m_context.SetConnectAnswer(0, 0, "{\"a\":{\"onlineflag\":\"1\"}}");
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache GetServerConnectStat Error GetNode onlineflag "
                              "strData[{\"a\":{\"onlineflag\":\"1\"}}]"}}));
  EXPECT_EQ(1u, m_context.FreedReplies().size());
}

TEST_F(ConnectionTest, AReplyThatIsNoJsonIsAnError) {
  m_context.SetConnectAnswer(0, 0, "online");
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3, "*qmlogcache GetServerConnectStat Error LoadBuffer strData[online]"}}));
  EXPECT_EQ(1u, m_context.FreedReplies().size());
}

TEST_F(ConnectionTest, OnlyTheRepliesLengthIsRead) {
  m_context.SetConnectAnswer(0, 0, "{\"onlineflag\":\"1\"}garbage", 18);
  EXPECT_TRUE(m_manager.GetServerConnectStat());
}

TEST_F(ConnectionTest, AFailedCallPrintsItsResult) {
  m_context.SetConnectAnswer(0xE0010077, 0x5, nullptr);
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 3, "*qmlogcache GetServerConnectStat Error AgentGetConnect iRet[e0010077]"}}));
  EXPECT_TRUE(m_context.FreedReplies().empty());
}

TEST_F(ConnectionTest, AFailedStatusIsPrintedAndTheReplyReleased) {
  m_context.SetConnectAnswer(0, 0xE0010055, "{\"onlineflag\":\"1\"}");
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 3, "*qmlogcache GetServerConnectStat Error AgentGetConnect iRet[e0010055]"}}));
  EXPECT_EQ(1u, m_context.FreedReplies().size());
}

TEST_F(ConnectionTest, ASuccessWithoutAReplyIsAnError) {
  m_context.SetConnectAnswer(0, 0, nullptr, 7);
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 3, "*qmlogcache GetServerConnectStat Error AgentGetConnect uiLength[7] pReply[(nil)]"}}));
  EXPECT_TRUE(m_context.FreedReplies().empty());
}

TEST_F(ConnectionTest, ASuccessWithAnEmptyReplyIsAnErrorAndTheReplyIsReleased) {
  m_context.SetConnectAnswer(0, 0, "", 0);
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  const std::vector<void*> vecFreed = m_context.FreedReplies();
  ASSERT_EQ(1u, vecFreed.size());
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 3,
                              "*qmlogcache GetServerConnectStat Error AgentGetConnect uiLength[0] pReply[" +
                                  PointerText(vecFreed[0]) + "]"}}));
}

TEST_F(ConnectionTest, WithoutAContextTheQueryFailsWithItsOwnCode) {
  m_manager.SetCtx(nullptr);
  CLogCapture::Reset();
  EXPECT_FALSE(m_manager.GetServerConnectStat());
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 3, "*qmlogcache GetServerConnectStat Error AgentGetConnect iRet[e0010002]"}}));
}

}  // namespace
