// Callbacks around the manager's end.
#include <atomic>
#include <string>
#include <thread>

#include "message/receive.h"
#include "message/send_completion.h"
#include "tests/support/manager_fixture.h"

namespace {

class CallbackLifetimeTest : public ManagerTest {
 protected:
  void Deliver(long i64MsgType, const std::string& strPayload) {
    CLogCacheReceive::m_gReceive.ReceiveCallback(
        kSenderGuid, i64MsgType, reinterpret_cast<const unsigned char*>(strPayload.data()),
        static_cast<unsigned int>(strPayload.size()), &m_iHandle, static_cast<IComponentContext*>(&m_context));
  }

  int m_iHandle = 0;
};

TEST_F(CallbackLifetimeTest, AMessageAfterCloseIsAnsweredFailAndLogged) {
  CLogCacheMgr::Close();
  CLogCapture::Reset();
  Deliver(10102, "data");
  const std::vector<GivenReply> vecReplies = m_context.Replies();
  ASSERT_EQ(1u, vecReplies.size());
  EXPECT_EQ("fail", vecReplies[0].strText);
  EXPECT_EQ(0xE0010003u, static_cast<uint32_t>(vecReplies[0].iRet));
  EXPECT_EQ(10102, vecReplies[0].i64MsgType);
  EXPECT_TRUE(
      LoggedExactly({{kMainChannel, 3,
                      "*qmlogcache CLogCacheReceive::ReceiveCallback Error pLogCacheMgr is NULL i64MsgType[2776] "
                      "stComponentID[01234567-89AB-CDEF-0123-456789ABCDEF] uiDataLength[4]"}}));
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

TEST_F(CallbackLifetimeTest, NoMessageAfterCloseMakesAManager) {
  CLogCacheMgr::Close();
  const std::string strResult(32, '\0');
  for (const long i64MsgType : {10100L, 10300L, 20300L, 20003L, 1000L, 10104L}) {
    Deliver(i64MsgType, strResult);
    EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current()) << i64MsgType;
    EXPECT_EQ("fail", m_context.Replies().back().strText) << i64MsgType;
  }
}

TEST_F(CallbackLifetimeTest, WithoutALogHandleAMessageAfterCloseIsAnsweredFailWithoutALine) {
  CLogCacheMgr::Close();
  g_hLog = nullptr;
  g_hLogError = nullptr;
  CLogCapture::Reset();
  Deliver(10102, "data");
  CLogCacheSend::m_LogCacheSend.SendCallback(1, 20002, nullptr, 0, 1, reinterpret_cast<void*>(kFirstDataId));
  ASSERT_EQ(1u, m_context.Replies().size());
  EXPECT_EQ("fail", m_context.Replies()[0].strText);
  EXPECT_TRUE(CLogCapture::Lines().empty());
}

TEST_F(CallbackLifetimeTest, AManagerThatIsNotInitializedYetTakesNoMessages) {
  CLogCacheMgr::Close();
  ASSERT_NE(nullptr, CLogCacheMgr::Instance());
  Deliver(10102, "late one of an earlier life");
  EXPECT_EQ("fail", m_context.Replies().back().strText);
  EXPECT_EQ(0u, CLogCacheDataPeer(CLogCacheMgrPeer(*CLogCacheMgr::Instance()).Data()).MapSize());
}

TEST_F(CallbackLifetimeTest, TheNextManagerTakesMessagesAgain) {
  CLogCacheMgr::Close();
  Deliver(10102, "lost");
  CLogCacheMgr* pNext = CLogCacheMgr::Instance();
  ASSERT_NE(nullptr, pNext);
  ASSERT_TRUE(pNext->Init());
  Deliver(10102, "taken");
  EXPECT_EQ("success", m_context.Replies().back().strText);
  EXPECT_EQ(1u, CLogCacheDataPeer(CLogCacheMgrPeer(*pNext).Data()).MapSize());
  CLogCacheMgr::Close();
}

TEST_F(CallbackLifetimeTest, CloseWaitsForACallbackThatIsInsideAndBarsOthers) {
  std::atomic<bool> bReleased{false};
  std::atomic<bool> bClosedTooSoon{false};
  // The message is inside when it logs that it was filed.
  CLogCapture::SetHook([this](const LogLine& line) {
    if (line.strText.find("strData[inside]") != std::string::npos) {
      m_context.Block();
    }
  });
  std::thread callback([this] { Deliver(10102, "inside"); });
  EXPECT_TRUE(m_context.WaitUntilBlocked());
  std::thread closer([&] {
    CLogCacheMgr::Close();
    bClosedTooSoon = !bReleased;
  });
  // Close has begun when a new message is turned away.
  do {
    Deliver(10102, "another");
  } while (m_context.Replies().back().strText == "success");
  bReleased = true;
  m_context.Release();
  callback.join();
  closer.join();
  EXPECT_FALSE(bClosedTooSoon);
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

TEST_F(CallbackLifetimeTest, CloseWaitsForASendCompletionThatIsInside) {
  const unsigned long long u64DataId = SendRecord();
  std::atomic<bool> bReleased{false};
  std::atomic<bool> bClosedTooSoon{false};
  CLogCapture::SetHook([this](const LogLine& line) {
    if (line.strChannel == kErrorChannel) {
      m_context.Block();
    }
  });
  std::thread callback([u64DataId] {
    CLogCacheSend::m_LogCacheSend.SendCallback(0x77, 20002, nullptr, 0, 1, reinterpret_cast<void*>(u64DataId));
  });
  EXPECT_TRUE(m_context.WaitUntilBlocked());
  std::thread closer([&] {
    CLogCacheMgr::Close();
    bClosedTooSoon = !bReleased;
  });
  do {
    Deliver(10102, "another");
  } while (m_context.Replies().back().strText == "success");
  bReleased = true;
  m_context.Release();
  callback.join();
  closer.join();
  EXPECT_FALSE(bClosedTooSoon);
}

TEST_F(CallbackLifetimeTest, CloseGivesUpTheManagerWhenACallbackNeverComesOut) {
  static CLogCacheMgr* pGivenUp = nullptr;  // reachable: it is not a leak but a manager that was given up
  pGivenUp = &m_manager;
  CLogCapture::SetHook([this](const LogLine& line) {
    if (line.strText.find("strData[stuck]") != std::string::npos) {
      m_context.Block();
    }
  });
  std::thread callback([this] { Deliver(10102, "stuck"); });
  EXPECT_TRUE(m_context.WaitUntilBlocked());
  CLogCapture::Reset();
  {
    const CFastMonotonicClock fast;
    CLogCacheMgr::Close();
  }
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
  size_t uMissing = 0;
  for (const LogLine& line : CLogCapture::Lines()) {
    uMissing += line.iLevel == 4 && line.strChannel == kMainChannel ? 1 : 0;
  }
  EXPECT_EQ(1u, uMissing);
  // It was not freed: the callback comes out of it as if nothing had been.
  m_context.Release();
  callback.join();
  EXPECT_EQ("success", m_context.Replies().back().strText);
  CLogCacheMgrPeer::Destroy(pGivenUp);
}

TEST_F(CallbackLifetimeTest, ARecordWhoseCallbackIsInsideIsFiledBeforeStopSaves) {
  std::atomic<bool> bReleased{false};
  std::atomic<bool> bSavedTooSoon{false};
  CPlatformFaults::SetInsertHook([this] { m_context.Block(); });
  std::thread callback([this] { Deliver(10102, "data"); });
  EXPECT_TRUE(m_context.WaitUntilBlocked());
  CLogCapture::SetHook([&](const LogLine& line) {
    if (line.strText == "qmlogcache CLogCacheMgr::SaveCacheToDb Begin") {
      bSavedTooSoon = !bReleased;
    }
  });
  std::thread stopper([this] { EXPECT_TRUE(m_manager.Stop()); });
  // Stop has cancelled the last registration when it may begin to wait.
  EXPECT_TRUE(m_context.WaitForCall("UnReceive 1000"));
  bReleased = true;
  m_context.Release();
  stopper.join();
  callback.join();
  EXPECT_FALSE(bSavedTooSoon);
  EXPECT_TRUE(LoggedOnce(kMainChannel, 6, "qmlogcache CLogCacheMgr::SaveCacheToDb Begin"));
  EXPECT_EQ(1u, m_dataPeer.MapSize());
}

}  // namespace
