// Threads that do not end when asked: Stop waits sixty seconds, then cancels them, and everything else still works.
#include <string>
#include <thread>

#include "tests/support/manager_fixture.h"

namespace {

constexpr int kEnded = 2;

class CancellationTest : public ManagerTest {
 protected:
  static std::string KillWork(pthread_t hThread) {
    return "*qmlogcache CLogCacheMgr::Stop thread need kill work threadid[" + std::to_string(hThread) + "]";
  }
  static std::string KillTimer(pthread_t hThread) {
    return "*qmlogcache CLogCacheMgr::Stop thread need kill timer threadid[" + std::to_string(hThread) + "]";
  }
  // Stop's pauses pass at once when the other thread has ended.
  void PassTimeOnceTimerEnded() {
    CFakeClock::SetMicroSleepHook([this](unsigned int) {
      while (m_peer.TimerThreadStatus() != kEnded) {
        std::this_thread::yield();
      }
    });
  }
  void PassTimeOnceWorkEnded() {
    CFakeClock::SetMicroSleepHook([this](unsigned int) {
      while (m_peer.WorkThreadStatus() != kEnded) {
        std::this_thread::yield();
      }
    });
  }
  // What still has to work after a cancel. A thread logs its end after it has ended: the first start's lines must all
  // be there.
  void ExpectEverythingWorks() {
    CFakeClock::SetMicroSleepHook(nullptr);
    CFakeClock::SetSleepHook(nullptr);
    CPlatformFaults::SetWaitHook(nullptr);
    m_context.SetSendHandler(nullptr);
    m_context.SetQueryHandler(nullptr);
    CLogCapture::Reset();
    EXPECT_EQ(0, m_peer.SendRefCount());
    m_manager.BroadcastConnect();
    const size_t uSent = m_context.Sends().size();
    const unsigned long long u64DataId = AddRecord(3);
    EXPECT_TRUE(m_manager.Start());
    EXPECT_TRUE(m_context.WaitForSends(uSent + 1));
    EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0, 0));
    EXPECT_TRUE(m_manager.Stop());
    EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread End"));
    EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread End"));
    CLogCapture::Reset();
    CLogCacheMgr::Close();
    EXPECT_TRUE(CLogCapture::Lines().empty());  // it says so when it has to give the manager up
    EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
  }
};

TEST_F(CancellationTest, AWorkThreadStuckInTheConnectionQueryIsCancelled) {
  m_context.SetQueryHandler([this] { m_context.Block(); });
  EXPECT_TRUE(m_manager.Start());
  ASSERT_TRUE(m_context.WaitUntilBlocked());
  const pthread_t hWork = m_peer.WorkThreadId();
  const pthread_t hTimer = m_peer.TimerThreadId();
  PassTimeOnceTimerEnded();
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_EQ(std::vector<unsigned int>(200, 300000), CFakeClock::MicroSleeps());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 3, KillWork(hWork)));
  EXPECT_TRUE(NotLogged(KillTimer(hTimer)));
  EXPECT_TRUE(LoggedOnce(kMainChannel, 2, "qmlogcache CLogCacheMgr::Stop End"));
  EXPECT_EQ("Uninitialize", m_context.Calls().back());
  EXPECT_EQ(0u, m_peer.WorkThreadId());
  EXPECT_EQ(0u, m_peer.TimerThreadId());
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread End"));
  ExpectEverythingWorks();
}

TEST_F(CancellationTest, AWorkThreadStuckInASendIsCancelled) {
  m_context.SetSendHandler([this](const SentMessage&, uint64_t*) {
    m_context.Block();
    return 0u;
  });
  m_manager.BroadcastConnect();
  const unsigned long long u64DataId = AddRecord();
  EXPECT_TRUE(m_manager.Start());
  ASSERT_TRUE(m_context.WaitUntilBlocked());
  const pthread_t hWork = m_peer.WorkThreadId();
  PassTimeOnceTimerEnded();
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 3, KillWork(hWork)));
  // The record was handed over as far as anybody knows: its result may still come.
  EXPECT_TRUE(m_data.IsDataIdExist(u64DataId));
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0, 0));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread End"));
  ExpectEverythingWorks();
}

TEST_F(CancellationTest, ATimerThreadThatDoesNotEndIsNamed) {
  m_manager.BroadcastConnect();  // so that only the timer thread sleeps
  CFakeClock::SetSleepHook([this](unsigned int) { m_context.Block(); });
  EXPECT_TRUE(m_manager.Start());
  ASSERT_TRUE(m_context.WaitUntilBlocked());
  const pthread_t hWork = m_peer.WorkThreadId();
  const pthread_t hTimer = m_peer.TimerThreadId();
  PassTimeOnceWorkEnded();
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 3, KillTimer(hTimer)));
  EXPECT_TRUE(NotLogged(KillWork(hWork)));
  m_context.Release();
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread End"));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread End"));
  ExpectEverythingWorks();
}

TEST_F(CancellationTest, AThreadThatHasMarkedItselfAsEndedIsNotCancelled) {
  m_manager.BroadcastConnect();
  // Both threads are held back in their last line, after they have ended as far as their status tells.
  CLogCapture::SetHook([this](const LogLine& line) {
    if (line.strText.find("Thread End") != std::string::npos) {
      m_context.Block();
    }
  });
  EXPECT_TRUE(m_manager.Start());
  const pthread_t hWork = m_peer.WorkThreadId();
  const pthread_t hTimer = m_peer.TimerThreadId();
  CFakeClock::SetMicroSleepHook([this](unsigned int) {
    while (m_peer.TimerThreadStatus() != kEnded || m_peer.WorkThreadStatus() != kEnded) {
      std::this_thread::yield();
    }
  });
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_TRUE(NotLogged(KillWork(hWork)));
  EXPECT_TRUE(NotLogged(KillTimer(hTimer)));
  m_context.Release();
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread End"));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread End"));
  CLogCacheMgr::Close();  // waits until they are out
}

TEST_F(CancellationTest, AThreadThatOutlivesItsStopDoesNotGoOnWithTheNextStart) {
  m_manager.BroadcastConnect();
  CFakeClock::SetSleepHook([this](unsigned int) { m_context.Block(); });
  EXPECT_TRUE(m_manager.Start());
  ASSERT_TRUE(m_context.WaitUntilBlocked());
  PassTimeOnceWorkEnded();
  EXPECT_TRUE(m_manager.Stop());
  CFakeClock::SetSleepHook(nullptr);
  CFakeClock::SetMicroSleepHook(nullptr);
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread Begin", 2));
  m_context.Release();
  // The first timer thread ends without another stop; the second goes on.
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::TimerThread End"));
  while (m_peer.TimerThreadStatus() == 0) {
    std::this_thread::yield();  // the second has said that it begins and is about to mark itself as running
  }
  EXPECT_EQ(1, m_peer.TimerThreadStatus());
  EXPECT_TRUE(m_manager.Stop());
  CLogCacheMgr::Close();
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

}  // namespace
